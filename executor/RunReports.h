#pragma once
// RunReports: hands what a run's children report on to every observer of the
// run (the caller's status line, the background packer), in the order they
// were added.

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
  void childStarted(bool fromQueue) override {
    for (RunObserver* observer : observers_) observer->childStarted(fromQueue);
  }
  void viewStarted(const ActiveView& view) override {
    for (RunObserver* observer : observers_) observer->viewStarted(view);
  }
  void childEnded() override {
    for (RunObserver* observer : observers_) observer->childEnded();
  }
  void viewFinished(const ActiveView& view) override {
    for (RunObserver* observer : observers_) observer->viewFinished(view);
  }
  void step(const char* name) override {
    for (RunObserver* observer : observers_) observer->step(name);
  }
  void waiting() override {
    for (RunObserver* observer : observers_) observer->waiting();
  }

 private:
  std::vector<RunObserver*> observers_;
};
