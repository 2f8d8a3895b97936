#pragma once
// RunReports: hands what a run's children report on to every observer of the
// run (the caller's status line and report, the background packer), in the
// order they were added.

#include <vector>

#include "process/RunObserver.h"

class RunReports : public RunObserver {
 public:
  // Null is ignored.
  void add(RunObserver* observer) {
    if (observer) observers_.push_back(observer);
  }

  void childQueued() override {
    for (RunObserver* observer : observers_) observer->childQueued();
  }
  void childStarted(const ChildRun& child, bool fromQueue) override {
    for (RunObserver* observer : observers_) observer->childStarted(child, fromQueue);
  }
  void viewStarted(const ActiveView& view) override {
    for (RunObserver* observer : observers_) observer->viewStarted(view);
  }
  void childEnded(const ChildRun& child, int exitCode) override {
    for (RunObserver* observer : observers_) observer->childEnded(child, exitCode);
  }
  void viewFinished(const ActiveView& view) override {
    for (RunObserver* observer : observers_) observer->viewFinished(view);
  }
  void stepStarted(RunStep step) override {
    for (RunObserver* observer : observers_) observer->stepStarted(step);
  }
  void stepEnded(RunStep step) override {
    for (RunObserver* observer : observers_) observer->stepEnded(step);
  }
  void waiting() override {
    for (RunObserver* observer : observers_) observer->waiting();
  }

 private:
  std::vector<RunObserver*> observers_;
};
