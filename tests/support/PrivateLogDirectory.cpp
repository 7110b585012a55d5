// A log directory for a test program that was not given one, from before main until the log's own exit handler is done.

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
