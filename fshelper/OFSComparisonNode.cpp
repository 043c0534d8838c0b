#include "fshelper/OFSComparisonNode.h"

namespace ombra {

OFSComparisonNode::OFSComparisonNode(std::string displayName) : KCNode(std::string()) {
  setDisplayName(std::move(displayName));
}

}  // namespace ombra
