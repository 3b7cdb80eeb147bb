// All tables of the data factory, filled aside.
#include "kvdatafactory/KvDfFilling.h"

#include "kvdatafactory/Inventory/KvInventoryFactory.h"
#include "kvdatafactory/KvDfCommon_Maps.h"

namespace {

std::mutex g_fillingMutex;

}  // namespace

KvDfFilling::KvDfFilling() : alone_(g_fillingMutex) {
    g_tables.Begin();
    g_invFactory.Begin();
}

KvDfFilling::~KvDfFilling() {
    g_invFactory.Abandon();
    g_tables.Abandon();
}

void KvDfFilling::Publish() {
    g_tables.Publish();
    g_invFactory.Publish();
}
