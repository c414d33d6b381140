#pragma once
// The secret store behind the saved logins: generic-password items keyed by (service, account) whose
// secret is the play cookie. Two backends answer the same four operations: the desktop Secret Service
// and, only where no Secret Service answers on the session bus, a private file.

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace zrv::account {

enum class SecretStatus {
  success,
  itemNotFound,   ///< nothing matches the query
  duplicateItem,  ///< add: an item with that key exists already
  failure,        ///< the store refused or did not answer (locked, dismissed, timed out, unsafe file)
};

struct SecretQuery {
  std::string service;
  std::optional<std::string> account;  ///< absent: every account of the service
  bool matchAll = false;               ///< else at most one match
  bool returnAttributes = false;
  bool returnData = false;
};

struct SecretMatch {
  std::vector<std::string> accounts;  ///< with returnAttributes, in the store's order
  std::optional<std::string> data;    ///< with returnData, the secret of the first match
};

class SecretStore {
 public:
  virtual ~SecretStore() = default;

  /// "secret-service" or "file".
  virtual std::string name() const = 0;

  /// Items come back ordered by account name, so that every backend lists them the same way.
  virtual SecretStatus copyMatching(const SecretQuery& query, SecretMatch* result) = 0;
  virtual SecretStatus add(const std::string& service, const std::string& account, const std::string& secret) = 0;
  /// Replaces the secret of the item (service, account).
  virtual SecretStatus update(const std::string& service, const std::string& account, const std::string& secret) = 0;
  /// Removes every item matching the query's service and account.
  virtual SecretStatus remove(const SecretQuery& query) = 0;
};

/// The store the saved logins use now: ZRV_SECRET_STORE ("secret-service" or "file") when set, else the
/// Secret Service when one answers on the session bus, else the file.
SecretStore& currentSecretStore();

SecretStore& secretServiceStore();
SecretStore& fileSecretStore();

/// Whether a Secret Service owns (or can be started for) org.freedesktop.secrets on the session bus.
/// Asked once per bus address.
bool secretServiceAnswers();

}  // namespace zrv::account
