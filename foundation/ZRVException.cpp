#include <ZRVKit/ZRVException.h>

ZRVException::ZRVException(std::string name, std::string reason)
    : name_(std::move(name)), reason_(std::move(reason)), what_(name_ + ": " + reason_) {}
