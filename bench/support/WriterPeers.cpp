#include "WriterPeers.h"

#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

WriterPeer::WriterPeer(const std::string& strFile) {
    spdlog::set_pattern("[INFO] [P%P] [T%t] [%Y-%m-%d %H:%M:%S:%f] [%s-%!(%#)]: %v%n%n");
    spdlog::basic_logger_st("writer", strFile)->flush_on(spdlog::level::info);
}

void WriterPeer::Write() {
    static spdlog::logger& s_logger = *spdlog::get("writer");
    s_logger.log(spdlog::source_loc{"TAVClientJNI/vex_jni_TAVClientJNI.cpp", 274, "P1SignString"}, spdlog::level::info,
                 "{} Enter.", "Java_vex_jni_TAVClientJNI_P1SignString");
}
