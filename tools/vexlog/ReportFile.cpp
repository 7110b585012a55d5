#include "ReportFile.h"

#include "common/FileIdentity.h"
#include "common/OutputFile.h"

namespace vexlog {

void WriteReportFile(const std::string& strPath, const std::function<void(vexposix::OutputBuffer&)>& fnWrite) {
    tools::OutputFile file(strPath);
    vexposix::OutputBuffer output(file.Descriptor(), tools::ShownName(strPath, "standard output"));
    fnWrite(output);
    output.Flush();
    file.Commit();
}

}  // namespace vexlog
