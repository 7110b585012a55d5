// Fields that several threads use without a lock: relaxed atomic accesses to plain types, because the types of the
// fields are given. On the target they cost no more than plain accesses.
#pragma once

template <typename TField>
TField VEXLoadField(const TField& field) {
    return __atomic_load_n(&field, __ATOMIC_RELAXED);
}

template <typename TField>
void VEXStoreField(TField& field, TField value) {
    __atomic_store_n(&field, value, __ATOMIC_RELAXED);
}
