#include "net/work_runner.h"

#include "core/log.h"

namespace quorvel {
namespace {

const log::Log Log("workrunner");

}  // namespace

namespace work_detail {

void logItemException(const char* what) { QLOG(Log, log::Error, "Work item threw exception: %s", what); }

void logCallbackException(const char* what) { QLOG(Log, log::Error, "Work callback threw exception: %s", what); }

}  // namespace work_detail
}  // namespace quorvel
