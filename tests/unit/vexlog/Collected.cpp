#include "Collected.h"

#include <clocale>
#include <cstring>
#include <cwchar>
#include <stdexcept>

using vexlog::Kind;

std::string Described(const vexlog::Record& record) {
    const std::string strMessage(record.message);
    if (record.kind == Kind::kEmpty) {
        return "empty " + std::to_string(record.cEmpty);
    }
    if (record.kind == Kind::kFragment) {
        return "fragment: " + strMessage;
    }
    if (record.kind == Kind::kContinued) {
        return "continued P" + std::to_string(record.nProcess) + " " + std::string(record.function) + ": " +
               strMessage + (record.bTorn ? " (torn)" : "");
    }
    std::string strLine = record.kind == Kind::kRecord ? "record " : "minimal ";
    strLine += std::string(record.type) + " P" + std::to_string(record.nProcess) + " T" +
               std::to_string(record.nThread) + " " + (record.time ? vexlog::FormatCivil(*record.time) : "no time");
    if (record.kind == Kind::kRecord) {
        strLine += " " + std::string(record.file) + "-" + std::string(record.function) + "(" +
                   (record.nLine ? std::to_string(*record.nLine) : "") + ")";
    }
    return strLine + ": " + strMessage + (record.bTorn ? " (torn)" : "");
}

std::vector<std::string> Collected(std::string_view bytes, std::size_t cbPiece) {
    Collector collector;
    vexlog::RecordParser parser(collector);
    for (; !bytes.empty(); bytes.remove_prefix(std::min(cbPiece, bytes.size()))) {
        parser.Feed(bytes.substr(0, cbPiece));
    }
    parser.Finish();
    return collector.lines;
}

// libc formats it, independently of vexlog.
std::string Garbled(std::string_view name) {
    if (std::setlocale(LC_CTYPE, "C.UTF-8") == nullptr) {
        throw std::runtime_error("no locale C.UTF-8");
    }
    std::wstring wide((name.size() + 3) / 4, L'\0');
    std::memcpy(wide.data(), name.data(), name.size());
    std::string strGarbled(wide.size() * 6 + 1, '\0');
    strGarbled.resize(std::wcstombs(strGarbled.data(), wide.c_str(), strGarbled.size()));
    return strGarbled;
}

std::string Entry(std::string_view message, std::string_view function, int nLine, std::string_view time, int nProcess,
                  int nThread) {
    return "[INFO] [P" + std::to_string(nProcess) + "] [T" + std::to_string(nThread) + "] [" + std::string(time) +
           "] [src.cpp-" + std::string(function) + "(" + std::to_string(nLine) + ")]: " + std::string(message);
}
