#include "process/RunObserver.h"

const char* RunStepName(RunStep step) {
  switch (step) {
    case RunStep::kSurvey:
      return "survey";
    case RunStep::kMerge:
      return "merge";
    case RunStep::kPacking:
      return "packing";
    case RunStep::kDelivery:
      return "delivery";
  }
  return "";
}
