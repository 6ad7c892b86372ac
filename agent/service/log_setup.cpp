#include "agent/service/log_setup.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "agent/log.h"

namespace qxpagent {

bool StandardErrorIsJournal() {
    const char* const stream = std::getenv("JOURNAL_STREAM");
    struct stat status {};
    return stream != nullptr && fstat(STDERR_FILENO, &status) == 0 &&
           std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino) == stream;
}

void SetUpLog(const Options& options) {
    if (!options.log.empty()) {
        setenv("QXHOST_LOG", options.log.c_str(), 1);
    } else if (StandardErrorIsJournal()) {
        setenv("QXHOST_LOG", "journal", 0);
    }
    if (!options.log_level.empty()) {
        setenv("QXHOST_LOG_LEVEL", options.log_level.c_str(), 1);
    }
    CLogDebug::Instance()->CheckLogLevel(kLogInfo);  // it reads them now
}

}  // namespace qxpagent
