// Where the parts of the file system's bundle lie, below the folder of the helper.
#pragma once

namespace ombra {

#define OMBRA_DRELFS_COMPONENTS \
  "ombradiskfs.fs/Contents/Resources/org.ombrafs.filesystems.ombradiskfs.components/"
inline constexpr const char kDrelFSExtension[] = OMBRA_DRELFS_COMPONENTS "ombradiskfs.kext";
inline constexpr const char kDrelFSLoader[] = OMBRA_DRELFS_COMPONENTS "load_drelfs";
#undef OMBRA_DRELFS_COMPONENTS
// Beside the helper: what runs the steps of the repair where a person is asked for the rights.
inline constexpr const char kDrelFSRepair[] = "repair_drelfs";

}  // namespace ombra
