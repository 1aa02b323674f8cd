#include "Platform/NSError.h"

#include <fmt/format.h>

namespace platform {

const NSError* NSError::underlyingError() const {
  const auto entry = userInfo_->find(NSUnderlyingErrorKey);
  if (entry == userInfo_->end()) return nullptr;
  const auto* error = std::get_if<std::shared_ptr<const NSError>>(&entry->second);
  return error == nullptr ? nullptr : error->get();
}

NSError NSError::withUnderlying(NSError underlying) const {
  UserInfo userInfo = *userInfo_;
  userInfo.insert_or_assign(std::string(NSUnderlyingErrorKey), std::make_shared<const NSError>(std::move(underlying)));
  return {domain_, code_, std::move(userInfo)};
}

std::string NSError::userInfoDescription() const {
  if (userInfo_->empty()) return "[:]";
  std::string text = "[";
  for (const auto& [key, value] : *userInfo_) {
    if (text.size() > 1) text += ", ";
    if (const auto* string = std::get_if<std::string>(&value)) {
      text += fmt::format("\"{}\": {}", key, *string);
    } else {
      const auto& error = *std::get<std::shared_ptr<const NSError>>(value);
      text += fmt::format("\"{}\": Error Domain={} Code={}", key, error.domain(), error.code());
    }
  }
  return text + "]";
}

}  // namespace platform
