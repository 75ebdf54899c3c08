#include "hooks/running_programs.h"

namespace Orx {

RunningPrograms::Entry::Entry(const RunningProgram& program) : program_(program) {
  RunningPrograms& all = TheRunningPrograms();
  const std::lock_guard<std::mutex> lock(all.mutex_);
  previous_ = all.latest_;
  all.latest_ = this;
}

RunningPrograms::Entry::~Entry() {
  RunningPrograms& all = TheRunningPrograms();
  const std::lock_guard<std::mutex> lock(all.mutex_);
  Entry** place = &all.latest_;
  while (*place != this) {
    place = &(*place)->previous_;
  }
  *place = previous_;
}

RunningPrograms& TheRunningPrograms() {
  static RunningPrograms programs;
  return programs;
}

}  // namespace Orx
