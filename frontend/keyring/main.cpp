// Speaks to the desktop's keyring for the command. A program of its own, so that the command neither loads
// the desktop's libraries for each listing of volumes nor hangs with a service that does not answer.
#include <libsecret/secret.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "frontend/PrivateMemory.h"
#include "frontend/keyring/KeyringProgram.h"

namespace ombra {

namespace {

struct Releaser {
  void operator()(GHashTable* table) const { g_hash_table_unref(table); }
  void operator()(SecretService* service) const { g_object_unref(service); }
  void operator()(SecretCollection* collection) const { g_object_unref(collection); }
  void operator()(SecretValue* value) const { secret_value_unref(value); }
  void operator()(GList* list) const { g_list_free_full(list, &g_object_unref); }
};
template <typename Kind>
using Held = std::unique_ptr<Kind, Releaser>;

const SecretSchema kSchema = {"org.ombrafs.Password",
                              SECRET_SCHEMA_NONE,
                              {{"kind", SECRET_SCHEMA_ATTRIBUTE_STRING},
                               {"protocol", SECRET_SCHEMA_ATTRIBUTE_STRING},
                               {"server", SECRET_SCHEMA_ATTRIBUTE_STRING},
                               {"port", SECRET_SCHEMA_ATTRIBUTE_STRING},
                               {"user", SECRET_SCHEMA_ATTRIBUTE_STRING},
                               {"file", SECRET_SCHEMA_ATTRIBUTE_STRING},
                               {nullptr, SECRET_SCHEMA_ATTRIBUTE_STRING}},
                              0,
                              nullptr,
                              nullptr,
                              nullptr,
                              nullptr,
                              nullptr,
                              nullptr,
                              nullptr};

// An error of the library, freed with the object, and what it means.
struct CallError {
  GError* error = nullptr;
  CallError() = default;
  ~CallError() { g_clear_error(&error); }
  CallError(const CallError&) = delete;
  CallError& operator=(const CallError&) = delete;

  bool means(GQuark domain, int code) const { return g_error_matches(error, domain, code) != 0; }

  bool isAbsence() const {
    return means(G_DBUS_ERROR, G_DBUS_ERROR_SERVICE_UNKNOWN) ||
           means(G_DBUS_ERROR, G_DBUS_ERROR_NAME_HAS_NO_OWNER) ||
           means(G_DBUS_ERROR, G_DBUS_ERROR_SPAWN_SERVICE_NOT_FOUND) ||
           means(G_DBUS_ERROR, G_DBUS_ERROR_SPAWN_CHILD_EXITED) ||
           means(G_DBUS_ERROR, G_DBUS_ERROR_SPAWN_EXEC_FAILED) || means(G_IO_ERROR, G_IO_ERROR_NOT_FOUND) ||
           means(G_IO_ERROR, G_IO_ERROR_CONNECTION_REFUSED);
  }

  // Tells it, and answers the exit code that it means.
  int tell() const {
    if (error == nullptr || means(SECRET_ERROR, SECRET_ERROR_IS_LOCKED)) return kKeyringLocked;
    g_dbus_error_strip_remote_error(error);
    fprintf(stderr, "%s\n", error->message);
    return isAbsence() ? kKeyringAbsent : kKeyringFailed;
  }
};

// The time that the service has; the signal that ends the program needs nobody to look at a clock.
class TimeLimit {
 public:
  explicit TimeLimit(long milliseconds) : iMilliseconds(milliseconds) { begin(); }
  void begin() const { set(iMilliseconds); }
  // A person is asked: the command waits for that as long as it likes.
  void suspend() const { set(0); }

 private:
  static void set(long milliseconds) {
    itimerval value{};
    value.it_value.tv_sec = milliseconds / 1000;
    value.it_value.tv_usec = milliseconds % 1000 * 1000;
    setitimer(ITIMER_REAL, &value, nullptr);
  }
  long iMilliseconds;
};

// A secret on its way through; wiped in the end.
struct SecretBuffer {
  std::array<char, kMaximumKeyringSecret> bytes{};
  size_t size = 0;
  SecretBuffer() = default;
  ~SecretBuffer() { explicit_bzero(bytes.data(), bytes.size()); }
  SecretBuffer(const SecretBuffer&) = delete;
  SecretBuffer& operator=(const SecretBuffer&) = delete;

  // Reads all there is. False when that is too much, or nothing.
  bool readFrom(int fd) {
    char beyond = 0;
    while (true) {
      const bool isFull = size == bytes.size();
      const ssize_t count =
          isFull ? read(fd, &beyond, 1) : read(fd, bytes.data() + size, bytes.size() - size);
      if (count < 0 && errno == EINTR) continue;
      if (count < 0 || (count > 0 && isFull)) return false;
      if (count == 0) return size > 0;
      size += static_cast<size_t>(count);
    }
  }
};

bool writeAll(int fd, const char* bytes, size_t size) {
  while (size > 0) {
    const ssize_t count = write(fd, bytes, size);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    bytes += count;
    size -= static_cast<size_t>(count);
  }
  return true;
}

class KeyringProgram {
 public:
  KeyringProgram(int count, char** arguments) : iCount(count), iArguments(arguments) {}

  int run() {
    if (iCount < 3 || atol(iArguments[1]) <= 0) return kKeyringWrongUsage;
    iLimit = TimeLimit(atol(iArguments[1]));
    const std::string verb = iArguments[2];
    const bool isStore = verb == "store";
    if (isStore && iCount < 4) return kKeyringWrongUsage;
    if (!readAttributes(isStore ? 4 : 3)) return kKeyringWrongUsage;
    // Read before the service is spoken to: the command is not to wait for it with a secret in its hands.
    if (isStore && !iSecret.readFrom(STDIN_FILENO)) return kKeyringWrongUsage;
    CallError error;
    iService.reset(secret_service_get_sync(SECRET_SERVICE_OPEN_SESSION, nullptr, &error.error));
    if (!iService) return error.tell();
    if (verb == "check") return check();
    if (verb == "find") return find();
    if (isStore) return store(iArguments[3]);
    return verb == "remove" ? remove() : kKeyringWrongUsage;
  }

 private:
  static bool isKnown(const std::string& name) {
    for (const SecretSchemaAttribute* known = kSchema.attributes; known->name != nullptr; ++known) {
      if (name == known->name) return true;
    }
    return false;
  }

  bool readAttributes(int first) {
    iAttributes.reset(g_hash_table_new_full(g_str_hash, g_str_equal, &g_free, &g_free));
    for (int i = first; i < iCount; ++i) {
      const std::string text = iArguments[i];
      const size_t end = text.find('=');
      if (end == std::string::npos || !isKnown(text.substr(0, end))) return false;
      g_hash_table_insert(iAttributes.get(), g_strdup(text.substr(0, end).c_str()),
                          g_strdup(text.substr(end + 1).c_str()));
    }
    return true;
  }

  // The place where new secrets go, if there is one.
  Held<SecretCollection> defaultCollection(CallError* error) const {
    return Held<SecretCollection>(secret_collection_for_alias_sync(
        iService.get(), SECRET_COLLECTION_DEFAULT, SECRET_COLLECTION_NONE, nullptr, &error->error));
  }

  int check() const {
    CallError error;
    const auto collection = defaultCollection(&error);
    if (error.error != nullptr) return error.tell();
    return collection && secret_collection_get_locked(collection.get()) != 0 ? kKeyringLocked : kKeyringDone;
  }

  Held<GList> search(CallError* error) const {
    return Held<GList>(secret_service_search_sync(iService.get(), &kSchema, iAttributes.get(),
                                                  SECRET_SEARCH_ALL, nullptr, &error->error));
  }

  // Unlocks what is locked, which may ask a person. False when it stays locked.
  bool unlock(GDBusProxy* locked, CallError* error) const {
    iLimit.suspend();
    const std::unique_ptr<GList, decltype(&g_list_free)> objects(g_list_append(nullptr, locked),
                                                                 &g_list_free);
    GList* unlocked = nullptr;
    const int count =
        secret_service_unlock_sync(iService.get(), objects.get(), nullptr, &unlocked, &error->error);
    const Held<GList> held(unlocked);
    iLimit.begin();
    return count == 1;
  }

  bool unlockItem(SecretItem* item, CallError* error) const {
    return secret_item_get_locked(item) == 0 || unlock(G_DBUS_PROXY(item), error);
  }

  int find() const {
    CallError error;
    const auto items = search(&error);
    if (error.error != nullptr) return error.tell();
    if (!items) return kKeyringNothingFound;
    // One that is open already is preferred: then nobody is asked.
    auto* chosen = static_cast<SecretItem*>(items->data);
    for (const GList* at = items.get(); at != nullptr; at = at->next) {
      auto* candidate = static_cast<SecretItem*>(at->data);
      if (secret_item_get_locked(candidate) != 0) continue;
      chosen = candidate;
      break;
    }
    if (!unlockItem(chosen, &error)) return error.tell();
    if (secret_item_load_secret_sync(chosen, nullptr, &error.error) == 0) return error.tell();
    return tellSecretOf(chosen);
  }

  static int tellSecretOf(SecretItem* item) {
    const Held<SecretValue> value(secret_item_get_secret(item));
    if (!value) return kKeyringNothingFound;
    gsize size = 0;
    const char* bytes = secret_value_get(value.get(), &size);
    if (size == 0 || size > kMaximumKeyringSecret) return kKeyringNothingFound;
    return writeAll(STDOUT_FILENO, bytes, size) ? kKeyringDone : kKeyringFailed;
  }

  int store(const char* label) const {
    CallError error;
    const auto collection = defaultCollection(&error);
    if (error.error != nullptr) return error.tell();
    // A keyring that does not exist yet is made, and a person chooses its password.
    if (!collection) iLimit.suspend();
    if (collection && secret_collection_get_locked(collection.get()) != 0 &&
        !unlock(G_DBUS_PROXY(collection.get()), &error)) {
      return error.tell();
    }
    const Held<SecretValue> value(
        secret_value_new(iSecret.bytes.data(), static_cast<gssize>(iSecret.size), "text/plain"));
    const bool isStored =
        secret_service_store_sync(iService.get(), &kSchema, iAttributes.get(), SECRET_COLLECTION_DEFAULT,
                                  label, value.get(), nullptr, &error.error) != 0;
    if (isStored) return kKeyringDone;
    const int result = error.tell();
    // A keyring that nobody was there to make is not more than a locked one.
    return collection || result == kKeyringAbsent ? result : kKeyringLocked;
  }

  int remove() const {
    CallError error;
    const auto items = search(&error);
    if (error.error != nullptr) return error.tell();
    int count = 0;
    int result = kKeyringDone;
    for (const GList* at = items.get(); at != nullptr && result == kKeyringDone; at = at->next) {
      auto* item = static_cast<SecretItem*>(at->data);
      if (!unlockItem(item, &error) || secret_item_delete_sync(item, nullptr, &error.error) == 0) {
        result = error.tell();
      } else {
        ++count;
      }
    }
    printf("%d\n", count);
    return result;
  }

  const int iCount;
  char** const iArguments;
  TimeLimit iLimit{60'000};
  Held<GHashTable> iAttributes;
  Held<SecretService> iService;
  SecretBuffer iSecret;
};

}  // namespace

}  // namespace ombra

int main(int argc, char** argv) {
  ombra::keepMemoryPrivate();
  return ombra::KeyringProgram(argc, argv).run();
}
