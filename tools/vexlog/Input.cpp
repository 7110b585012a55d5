#include "Input.h"

#include "Merge.h"
#include "RecordParser.h"

namespace vexlog {
namespace {

void ReadOne(const std::string& strPath, RecordSink& sink, ReadObserver& observer) {
    constexpr std::size_t kPiece = std::size_t{256} * 1024;
    Source source(strPath);
    RecordParser parser(sink);
    std::vector<char> piece(kPiece);
    for (;;) {
        std::size_t cb = 0;
        try {
            cb = source.Read(piece.data(), piece.size());
        } catch (const ReadError&) {
            parser.Finish();
            throw;
        }
        if (cb == 0) {
            break;
        }
        parser.Feed({piece.data(), cb});
        observer.OnProgress(source.BytesRead(), source.TotalBytes(), source.MayWait());
    }
    parser.Finish();
}

}  // namespace

void ReadLogs(const std::vector<std::string>& paths, RecordSink& sink, ReadObserver& observer) {
    if (paths.size() == 1) {
        ReadOne(paths.front(), sink, observer);
        return;
    }
    Merge merge(paths);
    merge.Read(sink, [&](const Source& source) {
        observer.OnProgress(merge.BytesRead(), merge.TotalBytes(), source.MayWait());
    });
}

}  // namespace vexlog
