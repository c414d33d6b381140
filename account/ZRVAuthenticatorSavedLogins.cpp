// The saved logins of ZRVAuthenticator: one secret-store item per account name, service "Quillmoor",
// whose secret is the play cookie. Failures read as "nothing saved" and writes fail silently; the store
// itself logs why it refused.

#include <ZRVKit/ZRVAuthenticator.h>

#include "account/SecretStore.h"

#include <glib.h>

using namespace zrv::account;

namespace {

constexpr const char* kService = "Quillmoor";

SecretQuery query(std::optional<std::string> account) {
  SecretQuery made;
  made.service = kService;
  made.account = std::move(account);
  return made;
}

}  // namespace

std::vector<std::string> ZRVAuthenticator::loadSavedLogins() {
  SecretQuery all = query(std::nullopt);
  all.matchAll = true;
  all.returnAttributes = true;
  SecretMatch match;
  if (currentSecretStore().copyMatching(all, &match) != SecretStatus::success) return {};
  return match.accounts;
}

std::optional<std::string> ZRVAuthenticator::loadSavedPassword(const std::string& account) {
  SecretQuery secret = query(account);
  secret.returnData = true;
  SecretMatch match;
  if (currentSecretStore().copyMatching(secret, &match) != SecretStatus::success || !match.data) return std::nullopt;
  if (!g_utf8_validate(match.data->data(), static_cast<gssize>(match.data->size()), nullptr)) return std::nullopt;
  return match.data;
}

void ZRVAuthenticator::removeSavedLogin(const std::string& account) { currentSecretStore().remove(query(account)); }

void ZRVAuthenticator::saveLogin() {
  auto account = username();
  auto secret = cookie();
  // Without both there is nothing worth keeping; an empty cookie would later pass for a saved login.
  if (!account || !secret) return;
  SecretStore& store = currentSecretStore();
  if (store.copyMatching(query(account), nullptr) != SecretStatus::success) {
    store.add(kService, *account, *secret);
  } else {
    store.update(kService, *account, *secret);
  }
}

std::string ZRVAuthenticator::secretStoreName() { return currentSecretStore().name(); }
