#include "RecordPeers.h"

#include <glog/logging.h>
#include <spdlog/async.h>
#include <spdlog/sinks/null_sink.h>

#include <memory>

namespace {

constexpr const char* kFile = "TAVClientJNI/vex_jni_TAVClientJNI.cpp";
constexpr const char* kFunction = "Java_vex_jni_TAVClientJNI_P1SignString";

// Takes the formatted line and drops it.
class NoSink : public google::base::Logger {
    void Write(bool, time_t, const char*, size_t) override {}
    void Flush() override {}
    google::uint32 LogSize() override { return 0; }
};

std::shared_ptr<spdlog::logger>& AsyncLogger() {
    static std::shared_ptr<spdlog::logger> s_logger;
    return s_logger;
}

}  // namespace

RecordPeers::RecordPeers(const std::string& strDirectory) {
    spdlog::init_thread_pool(8192, 1);
    AsyncLogger() = spdlog::create_async<spdlog::sinks::null_sink_mt>("bench");
    FLAGS_log_dir = strDirectory;
    FLAGS_stderrthreshold = google::FATAL;
    google::InitGoogleLogging("record_bench");
    google::base::SetLogger(google::INFO, new NoSink);
}

void RecordPeers::Spdlog() {
    AsyncLogger()->log(spdlog::source_loc{kFile, 274, kFunction}, spdlog::level::info, "{} Enter.", kFunction);
}

void RecordPeers::Glog() {
    google::LogMessage(kFile, 274).stream() << kFunction << " Enter.";
}
