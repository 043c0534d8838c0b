// The look-up key for a child set.
#pragma once

#include <string>

#include "remote/KCNode.h"

namespace ombra {

// A node of the empty path that carries nothing but a display name.
class OFSComparisonNode final : public KCNode {
 public:
  explicit OFSComparisonNode(std::string displayName);
};

}  // namespace ombra
