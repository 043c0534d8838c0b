#include "platform/userfs/OpenGate.h"

#include <utility>

namespace ombra {

OpenGate::Pass::Pass(OpenGate& gate, std::string path) : iGate(gate), iPath(std::move(path)) {
  ConditionLock lock(gate.iCondition);
  ++gate.iWaiting;
  while (gate.iHeld.count(iPath) != 0) gate.iCondition.wait();
  --gate.iWaiting;
  gate.iHeld.insert(iPath);
}

OpenGate::Pass::~Pass() {
  ConditionLock lock(iGate.iCondition);
  iGate.iHeld.erase(iPath);
  iGate.iCondition.broadcast();
}

size_t OpenGate::waiting() {
  ConditionLock lock(iCondition);
  return iWaiting;
}

}  // namespace ombra
