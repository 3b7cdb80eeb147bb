// What fillers of records are made of.
#include "kvdatafactory/Inventory/KvIfFill.h"

#include <algorithm>

namespace {

bool HaveSameTexts(const CKvInstance& a, const CKvInstance& b, std::initializer_list<unsigned long> columns) {
    return std::ranges::all_of(columns, [&](unsigned long column) {
        CKvString textOfA(nullptr, KvHeld<CKvString>::kCapacity);
        CKvString textOfB(nullptr, KvHeld<CKvString>::kCapacity);
        return a.GetStringColumn(column, textOfA) == 0 && b.GetStringColumn(column, textOfB) == 0 && textOfA == textOfB;
    });
}

}  // namespace

KvIfEqual KvIfFindEqual(const CKvInventory& inventory, const CKvInstance& instance,
                        std::initializer_list<unsigned long> columns) {
    KvIfEqual equal;
    bool met = false;
    CKvInstance* other = nullptr;
    for (unsigned long i = 0; i < inventory.GetInstanceCount() && inventory.GetInstance(i, &other) == 0; ++i) {
        met = met || other == &instance;
        if (!HaveSameTexts(*other, instance, columns)) continue;
        ++equal.all;
        if (!met) ++equal.before;
    }
    return equal;
}
