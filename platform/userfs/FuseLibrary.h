// The fuse library in the one version that we speak. Nobody outside this folder includes it.
#pragma once

#define FUSE_USE_VERSION 312
#include <fuse.h>
#include <fuse_lowlevel.h>
