// Who is told what becomes of the elements of a definition file.
#include "kvdatafactory/DefinitionReport.h"

namespace definition {

namespace {

thread_local Reader* t_reader = nullptr;

}  // namespace

Reading::Reading(Reader& reader) : before_(t_reader) {
    t_reader = &reader;
}

Reading::~Reading() {
    t_reader = before_;
}

void Begun(const char* at) {
    if (t_reader != nullptr) t_reader->Begun(at);
}

void Kept(const char* at) {
    if (t_reader != nullptr) t_reader->Kept(at);
}

void Skipped(std::string_view element, const char* reason) {
    if (t_reader != nullptr) t_reader->Skipped(element, reason);
}

}  // namespace definition
