// Installed loggers that write a record of the same length as ours to nowhere.
#pragma once

#include <string>

class RecordPeers {
public:
    // strDirectory: a logger may write files there.
    explicit RecordPeers(const std::string& strDirectory);

    static void Spdlog();
    static void Glog();
};
