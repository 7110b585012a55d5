// Shows what a parser found, one line for each record, and builds the records of a log.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "RecordParser.h"

// "record INFO P4711 T-12 2024-03-05T09:07:02.048213 file-Function(7): message", with " (torn)" behind it;
// "continued P4711 Function: text"; "fragment: text"; "empty 2".
std::string Described(const vexlog::Record& record);

class Collector : public vexlog::RecordSink {
public:
    void OnRecord(const vexlog::Record& record) override { lines.push_back(Described(record)); }
    std::vector<std::string> lines;
};

// Parses the bytes in pieces of cbPiece bytes and shows all that they contain.
std::vector<std::string> Collected(std::string_view bytes, std::size_t cbPiece);

// The text that the log writes when it gets narrow text in place of wide text.
std::string Garbled(std::string_view name);

// "[INFO] [P4711] [T-12] [2024-03-05 09:07:02:48213] [src.cpp-Function(7)]: message", without an end.
std::string Entry(std::string_view message, std::string_view function = "Function", int nLine = 7,
                  std::string_view time = "2024-03-05 09:07:02:48213", int nProcess = 4711, int nThread = -12);

inline constexpr std::string_view kHead = "\xFF\xFE";
inline constexpr std::string_view kEnd = "\r\n\r\n";
