// Saved logins in the desktop Secret Service (GNOME Keyring, KWallet, KeePassXC) through libsecret.
// Items carry the attributes service and account; the cookie is only ever the secret, never an
// attribute or the label. Every call is bounded: a keyring prompt that nobody answers fails the call.

#include "account/BoundedCall.h"
#include "account/SecretStore.h"

#include <ZRVKit/ZRVLog.h>

#include <libsecret/secret.h>

#include <algorithm>
#include <cstring>

namespace zrv::account {

namespace {

// Long enough for a person to type the keyring's password into an unlock prompt.
constexpr std::chrono::seconds kCallLimit{30};

const SecretSchema* savedLoginSchema() {
  static const SecretSchema schema = [] {
    SecretSchema made;
    std::memset(&made, 0, sizeof made);
    made.name = "com.quillmoor.Launcher.SavedLogin";
    made.flags = SECRET_SCHEMA_NONE;
    made.attributes[0] = {"service", SECRET_SCHEMA_ATTRIBUTE_STRING};
    made.attributes[1] = {"account", SECRET_SCHEMA_ATTRIBUTE_STRING};
    return made;
  }();
  return &schema;
}

struct Outcome {
  SecretStatus status = SecretStatus::failure;
  SecretMatch match;
  std::string error;  // libsecret's message; never holds a secret
};

// The attribute table of one call, owning its strings.
struct Attributes {
  std::string service;
  std::optional<std::string> account;
  GHashTable* table = g_hash_table_new(g_str_hash, g_str_equal);
  Attributes(std::string serviceName, std::optional<std::string> accountName)
      : service(std::move(serviceName)), account(std::move(accountName)) {
    g_hash_table_insert(table, const_cast<char*>("service"), service.data());
    if (account) g_hash_table_insert(table, const_cast<char*>("account"), account->data());
  }
  ~Attributes() { g_hash_table_unref(table); }
  Attributes(const Attributes&) = delete;
  Attributes& operator=(const Attributes&) = delete;
};

Outcome failed(GError* error) {
  Outcome outcome;
  outcome.error = error && error->message ? error->message : "unknown failure";
  if (error) g_error_free(error);
  return outcome;
}

// The accounts of the matching items, or an error.
Outcome search(const std::string& service, const std::optional<std::string>& account, bool all,
               GCancellable* cancellable) {
  Attributes attributes(service, account);
  GError* error = nullptr;
  GList* items = secret_password_searchv_sync(savedLoginSchema(), attributes.table,
                                              all ? SECRET_SEARCH_ALL : SECRET_SEARCH_NONE, cancellable, &error);
  if (error) return failed(error);
  Outcome outcome;
  for (GList* item = items; item; item = item->next) {
    GHashTable* found = secret_retrievable_get_attributes(SECRET_RETRIEVABLE(item->data));
    if (auto* name = static_cast<const char*>(g_hash_table_lookup(found, "account"))) {
      outcome.match.accounts.emplace_back(name);
    }
    g_hash_table_unref(found);
  }
  g_list_free_full(items, g_object_unref);
  std::sort(outcome.match.accounts.begin(), outcome.match.accounts.end());
  outcome.status = outcome.match.accounts.empty() ? SecretStatus::itemNotFound : SecretStatus::success;
  return outcome;
}

Outcome store(const std::string& service, const std::string& account, const std::string& secret,
              GCancellable* cancellable) {
  Attributes attributes(service, account);
  SecretValue* value = secret_value_new(secret.data(), static_cast<gssize>(secret.size()), "text/plain");
  std::string label = service + " (" + account + ")";
  GError* error = nullptr;
  gboolean stored = secret_password_storev_binary_sync(savedLoginSchema(), attributes.table, SECRET_COLLECTION_DEFAULT,
                                                       label.c_str(), value, cancellable, &error);
  secret_value_unref(value);
  if (error || !stored) return failed(error);
  Outcome outcome;
  outcome.status = SecretStatus::success;
  return outcome;
}

class SecretServiceStore final : public SecretStore {
 public:
  std::string name() const override { return "secret-service"; }

  SecretStatus copyMatching(const SecretQuery& query, SecretMatch* result) override {
    Outcome outcome = run("copyMatching", [query](GCancellable* cancellable) {
      if (!query.returnData) return search(query.service, query.account, query.matchAll, cancellable);
      Attributes attributes(query.service, query.account);
      GError* error = nullptr;
      SecretValue* value =
          secret_password_lookupv_binary_sync(savedLoginSchema(), attributes.table, cancellable, &error);
      if (error) return failed(error);
      Outcome found;
      found.status = value ? SecretStatus::success : SecretStatus::itemNotFound;
      if (value) {
        gsize length = 0;
        const gchar* bytes = secret_value_get(value, &length);
        found.match.data = std::string(bytes, length);
        secret_value_unref(value);
      }
      return found;
    });
    if (result) *result = std::move(outcome.match);
    return outcome.status;
  }

  SecretStatus add(const std::string& service, const std::string& account, const std::string& secret) override {
    // libsecret's store replaces an existing item; an add must not.
    return run("add", [service, account, secret](GCancellable* cancellable) {
             Outcome existing = search(service, account, false, cancellable);
             if (existing.status != SecretStatus::itemNotFound) {
               if (existing.status == SecretStatus::success) existing.status = SecretStatus::duplicateItem;
               return existing;
             }
             return store(service, account, secret, cancellable);
           })
        .status;
  }

  SecretStatus update(const std::string& service, const std::string& account, const std::string& secret) override {
    return run("update", [service, account, secret](GCancellable* cancellable) {
             Outcome existing = search(service, account, false, cancellable);
             if (existing.status != SecretStatus::success) return existing;
             return store(service, account, secret, cancellable);
           })
        .status;
  }

  SecretStatus remove(const SecretQuery& query) override {
    return run("remove", [query](GCancellable* cancellable) {
             Attributes attributes(query.service, query.account);
             GError* error = nullptr;
             gboolean removed = secret_password_clearv_sync(savedLoginSchema(), attributes.table, cancellable, &error);
             if (error) return failed(error);
             Outcome outcome;
             outcome.status = removed ? SecretStatus::success : SecretStatus::itemNotFound;
             return outcome;
           })
        .status;
  }

 private:
  Outcome run(const char* operation, std::function<Outcome(GCancellable*)> call) {
    std::optional<Outcome> outcome = runBounded<Outcome>(kCallLimit, std::move(call));
    if (!outcome) {
      ZRV_LOG_METHOD_ERROR("SecretServiceStore", operation, "the Secret Service did not answer in time");
      return Outcome{};
    }
    if (outcome->status == SecretStatus::failure) {
      ZRV_LOG_METHOD_ERROR("SecretServiceStore", operation, outcome->error);
    }
    return std::move(*outcome);
  }
};

}  // namespace

SecretStore& secretServiceStore() {
  static auto* store = new SecretServiceStore();
  return *store;
}

}  // namespace zrv::account
