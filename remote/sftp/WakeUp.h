// The wake-up that all engines share, under the name that this folder knows it by.
#pragma once

#include "remote/net/WakeUp.h"
