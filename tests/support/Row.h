// A row of a table-driven test: what GoogleTest names and prints it by. Tables derive their rows from it.
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
