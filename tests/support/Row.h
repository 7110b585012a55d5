// The base of a row in a table-driven test: gives GoogleTest the row's name.
#pragma once

#include <gtest/gtest.h>

#include <ostream>
#include <string>

struct Row {
    std::string strName;  // letters and digits
};

inline std::ostream& operator<<(std::ostream& stream, const Row& row) {
    return stream << row.strName;
}

// For INSTANTIATE_TEST_SUITE_P.
constexpr auto RowName = [](const auto& row) { return row.param.strName; };
