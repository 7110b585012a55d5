// Fields that several threads use without a lock: relaxed atomic accesses to plain types, which the records and classes
// have to keep. They cost nothing over plain accesses on the target.
#pragma once

template <typename TField>
TField VEXLoadField(const TField& field) {
    return __atomic_load_n(&field, __ATOMIC_RELAXED);
}

template <typename TField>
void VEXStoreField(TField& field, TField value) {
    __atomic_store_n(&field, value, __ATOMIC_RELAXED);
}
