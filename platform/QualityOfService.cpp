#include "platform/QualityOfService.h"

#include <utility>

namespace quillsift {

namespace {

thread_local QOSClass threadQOS = QOSClass::standard;

}  // namespace

QOSClass currentQOS() {
  return threadQOS;
}

ScopedQOS::ScopedQOS(QOSClass qos) : previous_(std::exchange(threadQOS, qos)) {}

ScopedQOS::~ScopedQOS() {
  threadQOS = previous_;
}

}  // namespace quillsift
