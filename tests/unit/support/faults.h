#pragma once

namespace test {

/// Makes one library function fail for as long as the object lives: the call returns the failure
/// value of that function and sets `errno` to `errnum`. The functions that can be made to fail are
/// listed in faults.cc; naming another one throws std::out_of_range.
class Fault {
 public:
  /// The first `skip` calls still succeed; after `times` failures the function works again.
  Fault(const char* function, int errnum, int skip = 0, int times = 1 << 30);
  ~Fault();
  Fault(const Fault&) = delete;
  Fault& operator=(const Fault&) = delete;

 private:
  const char* function_;
};

}  // namespace test
