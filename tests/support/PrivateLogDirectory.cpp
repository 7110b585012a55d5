// A log directory for a test program without one. It exists from before main until after the log's exit handler.

#include <stdlib.h>

#include <optional>

#include "TempDirectory.h"

namespace {

class PrivateLogDirectory {
public:
    PrivateLogDirectory() {
        if (getenv("VEX_TEST_LOG_DIR") == nullptr) {
            m_directory.emplace();
            setenv("VEX_TEST_LOG_DIR", m_directory->Path().c_str(), 0);
        }
    }

private:
    std::optional<TempDirectory> m_directory;
};

const PrivateLogDirectory s_directory;

}  // namespace
