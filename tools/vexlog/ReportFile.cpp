#include "ReportFile.h"

#include "common/OutputFile.h"

namespace vexlog {

void WriteReportFile(const std::string& strPath, const std::function<void(vexposix::OutputBuffer&)>& fnWrite) {
    tools::OutputFile file(strPath);
    vexposix::OutputBuffer output(file.Descriptor(), strPath == "-" ? "standard output" : strPath);
    fnWrite(output);
    output.Flush();
    file.Commit();
}

}  // namespace vexlog
