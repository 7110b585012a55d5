// A logger that others use, writing lines of the length of ours into a file.
#pragma once

#include <string>

class WriterPeer {
public:
    explicit WriterPeer(const std::string& strFile);
    void Write();  // with the kernel when it returns
};
