#include "fshelper/OFSComparisonNode.h"

namespace ombra {

OFSComparisonNode::OFSComparisonNode(std::string displayName) : KCNode(OnlyName{std::move(displayName)}) {}

}  // namespace ombra
