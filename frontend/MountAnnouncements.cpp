#include "frontend/MountAnnouncements.h"

#include <array>

#include "frontend/Deadline.h"
#include "platform/foundation/NSKeyedArchiver.h"
#include "platform/foundation/RunLoop.h"

namespace ombra {

namespace {

using Kind = MountAnnouncement::Kind;

struct KindName {
  std::string_view name;
  Kind kind;
};

constexpr std::array<KindName, 4> kKinds{{
    {"OFSDidMount", Kind::kDidMount},
    {"OFSAlreadyMounted", Kind::kAlreadyMounted},
    {"OFSMountFailed", Kind::kMountFailed},
    {"OFSDidUnmount", Kind::kDidUnmount},
}};

void readUserInfo(const NSDictionary& info, MountAnnouncement* announcement) {
  announcement->volumeName = info.stringForKey("volumeName").value_or("");
  announcement->mountPath = info.stringForKey("mountPath").value_or("");
  announcement->rootPath = info.stringForKey("rootPath").value_or("");
  announcement->address = info.stringForKey("address").value_or("");
  announcement->passthrough = info.stringForKey("passthrough");
  const PropertyValue* errorData = info.objectForKey("errorData");
  if (errorData == nullptr || errorData->asData() == nullptr) return;
  std::string reason;
  announcement->error = NSKeyedUnarchiver::unarchivedError(*errorData->asData(), &reason);
}

}  // namespace

std::optional<MountAnnouncement> MountAnnouncements::read(const NSNotification& notification) {
  for (const KindName& candidate : kKinds) {
    if (candidate.name != notification.name) continue;
    MountAnnouncement announcement;
    announcement.kind = candidate.kind;
    if (notification.userInfo) readUserInfo(*notification.userInfo, &announcement);
    return announcement;
  }
  return std::nullopt;
}

MountAnnouncements::MountAnnouncements(std::string registeredName)
    : iRegisteredName(std::move(registeredName)) {
  for (const KindName& kind : kKinds) {
    NSDistributedNotificationCenter::defaultCenter().addObserver(
        this, kind.name, [this](const NSNotification& notification) {
          if (notification.object != iRegisteredName) return;
          if (auto announcement = read(notification)) iArrived.push_back(std::move(*announcement));
        });
  }
}

MountAnnouncements::~MountAnnouncements() {
  NSDistributedNotificationCenter::defaultCenter().removeObserver(this);
}

std::optional<MountAnnouncement> MountAnnouncements::next(int milliseconds) {
  const Deadline deadline{std::chrono::milliseconds(milliseconds)};
  do {
    if (!iArrived.empty()) break;
    RunLoop::mainRunLoop().runOnce(static_cast<uint64_t>(deadline.pollTimeout()) * 1000);
  } while (iArrived.empty() && !deadline.passed());
  if (iArrived.empty()) return std::nullopt;
  MountAnnouncement announcement = std::move(iArrived.front());
  iArrived.pop_front();
  return announcement;
}

}  // namespace ombra
