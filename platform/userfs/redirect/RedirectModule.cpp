// The fuse module "redirect": what the library loads it by, and its options.
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <exception>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include "platform/userfs/redirect/RedirectFileSystem.h"
#include "platform/userfs/redirect/VolumeInfo.h"

namespace ombra {

namespace {

RedirectFileSystem& fileSystem() {
  return *static_cast<RedirectFileSystem*>(fuse_get_context()->private_data);
}

// Runs one operation. Nothing that is thrown gets to the library.
template <auto operation, typename... Arguments>
int answer(Arguments... arguments) noexcept {
  try {
    return (fileSystem().*operation)(arguments...);
  } catch (const std::bad_alloc&) {
    return -ENOMEM;
  } catch (const std::exception& exception) {
    fuse_log(FUSE_LOG_ERR, "redirect: %s\n", exception.what());
  }
  return -EIO;
}

void* initialize(fuse_conn_info* connection, fuse_config* config) {
  RedirectFileSystem& self = fileSystem();
  fuse_fs_init(self.lower(), connection, config);
  return &self;
}

// The library keeps no list of what lies below a module: it ends with it, or never.
void destroy(void* data) {
  const std::unique_ptr<RedirectFileSystem> self(static_cast<RedirectFileSystem*>(data));
  fuse_fs_destroy(self->lower());
}

fuse_operations makeOperations() {
  using Self = RedirectFileSystem;
  fuse_operations operations{};
  operations.init = initialize;
  operations.destroy = destroy;
  operations.getattr = answer<&Self::attributes>;
  operations.chmod = answer<&Self::changeMode>;
  operations.chown = answer<&Self::changeOwner>;
  operations.utimens = answer<&Self::changeTimes>;
  operations.statfs = answer<&Self::volumeAttributes>;
  operations.access = answer<&Self::mayAccess>;
  operations.readlink = answer<&Self::readLink>;
  operations.setxattr = answer<&Self::setExtendedAttribute>;
  operations.getxattr = answer<&Self::extendedAttribute>;
  operations.listxattr = answer<&Self::extendedAttributes>;
  operations.removexattr = answer<&Self::removeExtendedAttribute>;
  operations.open = answer<&Self::open>;
  operations.create = answer<&Self::create>;
  operations.mknod = answer<&Self::makeNode>;
  operations.read_buf = answer<&Self::read>;
  operations.write_buf = answer<&Self::write>;
  operations.flush = answer<&Self::flush>;
  operations.fsync = answer<&Self::synchronize>;
  operations.release = answer<&Self::release>;
  operations.truncate = answer<&Self::truncate>;
  operations.fallocate = answer<&Self::allocate>;
  operations.mkdir = answer<&Self::makeFolder>;
  operations.symlink = answer<&Self::makeSymbolicLink>;
  operations.link = answer<&Self::makeLink>;
  operations.opendir = answer<&Self::openFolder>;
  operations.readdir = answer<&Self::readFolder>;
  operations.releasedir = answer<&Self::closeFolder>;
  operations.fsyncdir = answer<&Self::synchronizeFolder>;
  operations.unlink = answer<&Self::removeFile>;
  operations.rmdir = answer<&Self::removeFolder>;
  operations.rename = answer<&Self::move>;
  return operations;
}

// Filled by the library, which takes what is ours out of its arguments.
struct Options {
  ~Options() {
    for (char* text : {folder, icon, volumeName}) std::free(text);  // NOLINT
  }
  int hashesNames = 0;
  char* folder = nullptr;
  char* icon = nullptr;
  char* volumeName = nullptr;
};

const fuse_opt* optionTable() {
  static const fuse_opt sTable[] = {
      {"redirect_sha1", offsetof(Options, hashesNames), 1},
      {"redirect_folder=%s", offsetof(Options, folder), 0},
      {"redirect_volicon=%s", offsetof(Options, icon), 0},
      {"volname=%s", offsetof(Options, volumeName), 0},
      FUSE_OPT_KEY("-h", 0),
      FUSE_OPT_KEY("--help", 0),
      FUSE_OPT_END,
  };
  return sTable;
}

int takeOption(void* /*options*/, const char* /*argument*/, int key, fuse_args* /*arguments*/) {
  if (key != 0) return 1;  // somebody else's
  fuse_log(FUSE_LOG_INFO,
           "    -o redirect_folder=PATH local folder that desktop litter is kept in (required)\n"
           "    -o redirect_sha1        name what is kept there by hashes of the paths\n"
           "    -o redirect_volicon=PATH  image that file managers show for the volume\n"
           "    -o volname=NAME         name that file managers show for the volume\n");
  return -1;
}

fuse_fs* makeFileSystem(const Options& options, fuse_fs* lower) {
  if (options.folder == nullptr) {
    fuse_log(FUSE_LOG_ERR, "redirect: the option \"redirect_folder=PATH\" is missing.\n");
    return nullptr;
  }
  std::string reason;
  auto store = LitterStore::open(options.folder, options.hashesNames != 0, &reason);
  if (store == nullptr) {
    fuse_log(FUSE_LOG_ERR, "redirect: %s.\n", reason.c_str());
    return nullptr;
  }
  const char* name = options.volumeName != nullptr ? options.volumeName : "";
  const auto icon = options.icon != nullptr ? std::optional<std::string>(options.icon) : std::nullopt;
  if (const auto complaint = VolumeInfo::publish(*store, name, icon)) {
    fuse_log(FUSE_LOG_WARNING, "%s\n", complaint->c_str());
  }
  auto self = std::make_unique<RedirectFileSystem>(lower, std::move(store));
  static const fuse_operations sOperations = makeOperations();
  fuse_fs* made = fuse_fs_new(&sOperations, sizeof(sOperations), self.get());
  if (made != nullptr) self.release();
  return made;
}

fuse_fs* makeModule(fuse_args* arguments, fuse_fs* below[]) noexcept {
  try {
    Options options;
    if (fuse_opt_parse(arguments, &options, optionTable(), takeOption) != 0) return nullptr;
    return makeFileSystem(options, below[0]);
  } catch (const std::exception& exception) {
    fuse_log(FUSE_LOG_ERR, "redirect: %s\n", exception.what());
    return nullptr;
  }
}

}  // namespace

}  // namespace ombra

#pragma GCC visibility push(default)
extern "C" {
FUSE_REGISTER_MODULE(redirect, ombra::makeModule);
}
#pragma GCC visibility pop
