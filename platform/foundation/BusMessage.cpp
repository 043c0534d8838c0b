#include "platform/foundation/BusMessage.h"

#include <algorithm>
#include <string>

#include "platform/foundation/NSLog.h"
#include "platform/foundation/Unicode.h"

namespace ombra {
namespace {

bool holdsOnlyTexts(const NSArray& values) {
  return std::all_of(values.begin(), values.end(),
                     [](const PropertyValue& value) { return value.asString() != nullptr; });
}

int appendText(sd_bus_message* message, std::string_view text) {
  return sd_bus_message_append_basic(message, SD_BUS_TYPE_STRING, sanitizedUTF8(text).c_str());
}

int appendTexts(sd_bus_message* message, const NSArray& values) {
  int result = sd_bus_message_open_container(message, SD_BUS_TYPE_ARRAY, "s");
  for (const PropertyValue& value : values) {
    if (result >= 0) result = appendText(message, *value.asString());
  }
  return result < 0 ? result : sd_bus_message_close_container(message);
}

int appendVariant(sd_bus_message* message, const PropertyValue& value) {
  const bool isText = value.asString() != nullptr;
  const char* signature = isText ? "s" : value.asArray() != nullptr ? "as" : "ay";
  int result = sd_bus_message_open_container(message, SD_BUS_TYPE_VARIANT, signature);
  if (result < 0) return result;
  if (isText) {
    result = appendText(message, *value.asString());
  } else if (const NSArray* array = value.asArray()) {
    result = appendTexts(message, *array);
  } else {
    const NSData* data = value.asData();
    result = sd_bus_message_append_array(message, SD_BUS_TYPE_BYTE, data->data(), data->size());
  }
  return result < 0 ? result : sd_bus_message_close_container(message);
}

bool canTravel(const PropertyValue& value) {
  const NSArray* array = value.asArray();
  return value.asString() != nullptr || value.asData() != nullptr ||
         (array != nullptr && holdsOnlyTexts(*array));
}

int appendEntry(sd_bus_message* message, const std::string& key, const PropertyValue& value) {
  if (!canTravel(value)) {
    NSLog("the value \"{}\" is left out of a notification: no text, texts or data", key);
    return 0;
  }
  int result = sd_bus_message_open_container(message, SD_BUS_TYPE_DICT_ENTRY, "sv");
  if (result >= 0) result = appendText(message, key);
  if (result >= 0) result = appendVariant(message, value);
  return result < 0 ? result : sd_bus_message_close_container(message);
}

int appendUserInfo(sd_bus_message* message, const NSDictionary& userInfo) {
  int result = sd_bus_message_open_container(message, SD_BUS_TYPE_ARRAY, "{sv}");
  for (const auto& [key, value] : userInfo) {
    if (result >= 0) result = appendEntry(message, key, value);
  }
  return result < 0 ? result : sd_bus_message_close_container(message);
}

int appendNotification(sd_bus_message* message, const NSNotification& notification) {
  int result = appendText(message, notification.name);
  if (result >= 0) result = appendText(message, notification.object.value_or(std::string()));
  const int hasObject = notification.object ? 1 : 0;
  const int hasUserInfo = notification.userInfo ? 1 : 0;
  if (result >= 0) result = sd_bus_message_append(message, "bb", hasObject, hasUserInfo);
  if (result < 0) return result;
  return appendUserInfo(message, notification.userInfo.value_or(NSDictionary()));
}

// Reads the strings of an entered array.
int readTexts(sd_bus_message* message, NSArray& values) {
  const char* text = nullptr;
  int result = 0;
  while ((result = sd_bus_message_read_basic(message, SD_BUS_TYPE_STRING, &text)) > 0)
    values.emplace_back(text);
  return result;
}

// Reads the contents of a variant whose signature is `signature`; an unknown one is skipped and leaves null.
int readVariantContents(sd_bus_message* message, std::string_view signature, PropertyValue& value) {
  if (signature == "s") {
    const char* text = nullptr;
    const int result = sd_bus_message_read_basic(message, SD_BUS_TYPE_STRING, &text);
    if (result > 0) value = text;
    return result;
  }
  if (signature == "ay") {
    const void* bytes = nullptr;
    size_t length = 0;
    const int result = sd_bus_message_read_array(message, SD_BUS_TYPE_BYTE, &bytes, &length);
    const auto* begin = static_cast<const uint8_t*>(bytes);
    if (result >= 0) value = NSData(begin, begin + length);
    return result;
  }
  if (signature != "as") return sd_bus_message_skip(message, std::string(signature).c_str());
  NSArray texts;
  int result = sd_bus_message_enter_container(message, SD_BUS_TYPE_ARRAY, "s");
  if (result >= 0) result = readTexts(message, texts);
  value = std::move(texts);
  return result < 0 ? result : sd_bus_message_exit_container(message);
}

int readVariant(sd_bus_message* message, PropertyValue& value) {
  const char* contents = nullptr;
  char type = 0;
  int result = sd_bus_message_peek_type(message, &type, &contents);
  if (result <= 0 || type != SD_BUS_TYPE_VARIANT) return result < 0 ? result : -EBADMSG;
  const std::string signature = contents;
  result = sd_bus_message_enter_container(message, SD_BUS_TYPE_VARIANT, signature.c_str());
  if (result >= 0) result = readVariantContents(message, signature, value);
  return result < 0 ? result : sd_bus_message_exit_container(message);
}

int readEntry(sd_bus_message* message, NSDictionary& userInfo) {
  const char* key = nullptr;
  PropertyValue value;
  int result = sd_bus_message_read_basic(message, SD_BUS_TYPE_STRING, &key);
  const std::string name = result > 0 ? key : "";
  if (result >= 0) result = readVariant(message, value);
  if (result < 0) return result;
  userInfo.kc_setObject(std::move(value), name);
  return sd_bus_message_exit_container(message);
}

int readUserInfo(sd_bus_message* message, NSDictionary& userInfo) {
  int result = sd_bus_message_enter_container(message, SD_BUS_TYPE_ARRAY, "{sv}");
  if (result < 0) return result;
  while ((result = sd_bus_message_enter_container(message, SD_BUS_TYPE_DICT_ENTRY, "sv")) > 0) {
    result = readEntry(message, userInfo);
    if (result < 0) return result;
  }
  return result < 0 ? result : sd_bus_message_exit_container(message);
}

}  // namespace

BusMessageRef messageForNotification(sd_bus* bus, const NSNotification& notification, int* result) {
  sd_bus_message* raw = nullptr;
  *result =
      sd_bus_message_new_signal(bus, &raw, kNotificationPath, kNotificationInterface, kNotificationMember);
  BusMessageRef message(raw);
  if (*result >= 0) *result = appendNotification(message.get(), notification);
  if (*result < 0) message.reset();
  return message;
}

std::optional<NSNotification> notificationOfMessage(sd_bus_message* message) {
  const char* name = nullptr;
  const char* object = nullptr;
  int hasObject = 0;
  int hasUserInfo = 0;
  if (sd_bus_message_read(message, "ssbb", &name, &object, &hasObject, &hasUserInfo) <= 0)
    return std::nullopt;
  NSNotification notification{name, std::nullopt, std::nullopt};
  if (hasObject != 0) notification.object = object;
  NSDictionary userInfo;
  if (readUserInfo(message, userInfo) < 0) return std::nullopt;
  if (hasUserInfo != 0) notification.userInfo = std::move(userInfo);
  return notification;
}

}  // namespace ombra
