// The line numbers that log records of the natives contain. They are part of the log's format.
#pragma once

struct Lines {
    const char* pszNative;
    int nEnter;  // 0: no such record
    int nLeave;
};

inline constexpr Lines kLines[] = {
    {"Initialize", 101, 112},          {"SetDigestAlg", 0, 141},
    {"SetChooseSingleCert", 149, 164}, {"AddFilter", 171, 195},
    {"ClearFilter", 202, 216},         {"P1Sign", 223, 267},
    {"P1SignString", 274, 318},        {"P7Sign", 325, 368},
    {"P7SignString", 377, 420},        {"Finalize", 428, 442},
    {"GetSignVersion", 449, 454},      {"GetSignCert", 462, 494},
    {"GetLastError", 501, 505},        {"GetLastErrorMessage", 512, 545},
    {"GetCertList", 552, 585},
};
