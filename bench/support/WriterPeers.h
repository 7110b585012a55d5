// An installed logger that writes lines of the same length as ours to a file.
#pragma once

#include <string>

class WriterPeer {
public:
    explicit WriterPeer(const std::string& strFile);
    void Write();  // when it returns, the kernel has the line
};
