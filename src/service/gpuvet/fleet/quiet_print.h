#pragma once

#include "print.h"

namespace gpuvet::fleet {

// Silences the tool's lines for the length of a scope: the run's steps that
// the fleet commands replay print nothing of their own.
class QuietPrint {
 public:
  QuietPrint() : was_(PrintSilenced()) { SilencePrint(true); }
  ~QuietPrint() { SilencePrint(was_); }
  QuietPrint(const QuietPrint&) = delete;
  QuietPrint& operator=(const QuietPrint&) = delete;

 private:
  bool was_;
};

}  // namespace gpuvet::fleet
