// The tests of the contract. Include in exactly one source file of a test program.
#pragma once

#include "tests/support/ConnectionContractTransfers.h"
#include "tests/support/ConnectionContractTree.h"
