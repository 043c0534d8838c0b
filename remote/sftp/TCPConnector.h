// The connector that all engines share, under the name that this folder knows it by.
#pragma once

#include "remote/net/TCPConnector.h"
