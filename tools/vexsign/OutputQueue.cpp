#include "OutputQueue.h"

#include <exception>
#include <new>
#include <utility>

#include "Files.h"
#include "posix/OutputBuffer.h"

namespace vexsign {
namespace {

constexpr std::uint64_t kMostQueued = std::uint64_t{16} * 1024 * 1024;
constexpr std::size_t kMany = 64;
constexpr std::uint64_t kOverhead = 4096;  // of one output, so that the number of small ones has a bound, too

std::uint64_t SizeOf(const QueuedOutput& output) {
    std::uint64_t cb = kOverhead;
    for (const std::string& strPiece : output.signature.pieces) {
        cb += strPiece.size();
    }
    return cb;
}

}  // namespace

OutputQueue::OutputQueue(Failed fnFailed) : m_fnFailed(std::move(fnFailed)), m_thread([this] { Run(); }) {}

OutputQueue::~OutputQueue() {
    Stop(End::kNow);
}

void OutputQueue::Add(QueuedOutput output) {
    const std::uint64_t cb = SizeOf(output);
    std::unique_lock lock(m_lock);
    if (!m_outputs.empty() && m_cbQueued + cb > kMostQueued) {
        m_bFull = true;
        m_changed.notify_all();
        m_changed.wait(lock, [&] { return m_outputs.empty(); });
    }
    m_outputs.push_back(std::move(output));
    m_cbQueued += cb;
    if (IsMuch()) {
        m_changed.notify_all();
    }
}

void OutputQueue::Finish() {
    Stop(End::kWhenEmpty);
}

void OutputQueue::Stop(End end) {
    if (!m_thread.joinable()) {
        return;
    }
    {
        const std::lock_guard lock(m_lock);
        m_end = end;
    }
    m_changed.notify_all();
    m_thread.join();
}

bool OutputQueue::IsMuch() const {
    return m_outputs.size() >= kMany || m_bFull;
}

std::deque<QueuedOutput> OutputQueue::TakeAll() {
    std::unique_lock lock(m_lock);
    m_changed.wait(lock, [&] { return IsMuch() || m_end != End::kNo; });
    if (m_end == End::kNow) {
        return {};
    }
    m_cbQueued = 0;
    m_bFull = false;
    m_changed.notify_all();
    return std::exchange(m_outputs, {});
}

void OutputQueue::Write(const QueuedOutput& output, tools::OutputGroup& group) {
    try {
        const Signature& signature = output.signature;
        group.Add(
            WriteOutput({output.strName, {signature.pieces.begin(), signature.pieces.end()}, signature.bAsBase64}),
            output.nInput);
    } catch (const vexposix::OutputClosed&) {
        m_fnFailed(output.nInput, output.strName + ": the reader of the output ended before all was written");
    } catch (const std::bad_alloc&) {
        m_fnFailed(output.nInput, "out of memory");
    } catch (const std::exception& reason) {
        m_fnFailed(output.nInput, reason.what());
    }
}

void OutputQueue::Run() {
    tools::OutputGroup group(
        [this](std::size_t nInput, const std::exception& reason) { m_fnFailed(nInput, reason.what()); });
    for (std::deque<QueuedOutput> outputs = TakeAll(); !outputs.empty(); outputs = TakeAll()) {
        for (; !outputs.empty(); outputs.pop_front()) {
            Write(outputs.front(), group);
        }
    }
    const bool bCommit = [this] {
        const std::lock_guard lock(m_lock);
        return m_end == End::kWhenEmpty;
    }();
    if (bCommit) {
        group.Commit();
    }
}

}  // namespace vexsign
