// Loggers that others use, with a record of the length of ours, written nowhere.
#pragma once

#include <string>

class RecordPeers {
public:
    // strDirectory: for what they insist on writing.
    explicit RecordPeers(const std::string& strDirectory);

    static void Spdlog();
    static void Glog();
};
