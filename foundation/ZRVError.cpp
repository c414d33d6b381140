#include <ZRVKit/ZRVError.h>

#include <ZRVKit/ZRVBundle.h>
#include <ZRVKit/ZRVFormat.h>

#include <cstring>

ZRVError::ZRVError(std::string domain, long code, ZRVJSON userInfo, std::shared_ptr<const ZRVError> underlying)
    : domain_(std::move(domain)), code_(code), userInfo_(std::move(userInfo)), underlying_(std::move(underlying)) {
  if (!userInfo_.is_object()) userInfo_ = ZRVJSON::object();
}

ZRVError ZRVError::posix(int errorNumber) {
  return ZRVError(std::string(kPOSIXDomain), errorNumber,
                  {{std::string(kLocalizedDescriptionKey), std::string(std::strerror(errorNumber))}});
}

ZRVError ZRVError::file(int errorNumber, const std::filesystem::path& path) {
  ZRVJSON info = {{std::string(kLocalizedDescriptionKey),
                   ZRVFormat("%@: %@", path.string(), std::string(std::strerror(errorNumber)))},
                  {"path", path.string()}};
  return ZRVError(std::string(kFileDomain), errorNumber, std::move(info),
                  std::make_shared<const ZRVError>(posix(errorNumber)));
}

ZRVError ZRVError::file(const std::error_code& code, const std::filesystem::path& path) {
  return file(code.category() == std::generic_category() || code.category() == std::system_category()
                  ? code.value()
                  : EIO,
              path);
}

std::string ZRVError::libraryDomain(std::string_view word) {
  return ZRVFormat("%@.%@", ZRVBundle::mainBundle().bundleIdentifier(), word);
}

ZRVError ZRVError::library(std::string_view word, long code, std::string message) {
  return ZRVError(libraryDomain(word), code, {{std::string(kMessageKey), std::move(message)}});
}

bool ZRVError::isPOSIX(int errorNumber) const { return domain_ == kPOSIXDomain && code_ == errorNumber; }

bool ZRVError::hasUnderlyingPOSIX(int errorNumber) const {
  return underlying_ && underlying_->isPOSIX(errorNumber);
}

std::string ZRVError::localizedDescription() const {
  for (std::string_view key : {kLocalizedDescriptionKey, kMessageKey}) {
    auto entry = userInfo_.find(std::string(key));
    if (entry != userInfo_.end() && entry->is_string() && !entry->get_ref<const std::string&>().empty()) {
      return entry->get<std::string>();
    }
  }
  return ZRVFormat("The operation couldn\u2019t be completed. (%@ error %ld.)", domain_, code_);
}

bool ZRVError::operator==(const ZRVError& other) const {
  if (domain_ != other.domain_ || code_ != other.code_ || userInfo_ != other.userInfo_) return false;
  if (!underlying_ || !other.underlying_) return !underlying_ && !other.underlying_;
  return *underlying_ == *other.underlying_;
}
