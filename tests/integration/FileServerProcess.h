// Runs the real file server as a process.
#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

struct ServerEnd {
    int nStatus = -1;  // exit status; -1 when a signal ended it
    int nSignal = 0;   // that signal
};

class FileServerProcess {
public:
    // Starts with these arguments. strLimit: the arguments for ulimit, such as "-n 30"; more shell commands may follow.
    // nPassed: a descriptor that becomes the server's descriptor 3.
    explicit FileServerProcess(std::vector<std::string> arguments, const std::string& strLimit = {}, int nPassed = -1);
    FileServerProcess(const FileServerProcess&) = delete;
    FileServerProcess& operator=(const FileServerProcess&) = delete;
    ~FileServerProcess();  // kills it

    // Waits until it listens and returns the port; 0 when it ends before.
    std::uint16_t Port();

    // Waits until cLines lines of the log have that text. False: it ended, or a minute has passed.
    bool WaitForLog(const std::string& strText, int cLines = 1);

    int LinesWith(const std::string& strText);

    // All log lines so far.
    std::string Log();

    void Signal(int nSignal) const;

    // Waits until it ends, and kills it after a minute.
    ServerEnd Wait();

    pid_t Process() const { return m_nProcess; }

private:
    void ReadLog(int nDescriptor);

    pid_t m_nProcess = -1;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::string m_strLog;   // guarded by m_mutex
    bool m_bEnded = false;  // guarded by m_mutex: the log is complete
    std::thread m_logReader;
};
