// Output files that are put into place together: one wait for the disk takes as long as one for each small file.
#pragma once

#include <cstddef>
#include <exception>
#include <functional>
#include <memory>
#include <vector>

#include "OutputFile.h"

namespace tools {

class OutputGroup {
public:
    using Failed = std::function<void(std::size_t nNumber, const std::exception& reason)>;

    // fnFailed is called for each file that could not be put into place; its old file is unchanged.
    explicit OutputGroup(Failed fnFailed);

    // Takes a file that is completely written. nNumber is the caller's, for fnFailed. When the group is full, puts all
    // its files into place.
    void Add(std::unique_ptr<OutputFile> file, std::size_t nNumber);

    // Puts all files into place. A group that is destroyed before changes nothing.
    void Commit();

private:
    struct Member {
        std::unique_ptr<OutputFile> file;
        std::size_t nNumber;
    };

    const Failed m_fnFailed;
    const std::size_t m_cMost;
    std::vector<Member> m_members;
};

}  // namespace tools
