// Which secret store holds the saved logins. The Secret Service whenever one answers on the session bus:
// a locked keyring or a dismissed prompt is a failure of that store, never a reason to write secrets to a
// file instead. The file only when there is no Secret Service at all, or when ZRV_SECRET_STORE says so.

#include "account/BoundedCall.h"
#include "account/SecretStore.h"

#include <ZRVKit/ZRVLog.h>

#include <cstdlib>
#include <map>
#include <mutex>
#include <string_view>

namespace zrv::account {

namespace {

constexpr const char* kSecretServiceName = "org.freedesktop.secrets";
constexpr std::chrono::seconds kProbeLimit{5};
constexpr gint kCallTimeoutMilliseconds = 3000;

bool callReturns(GDBusConnection* bus, const char* method, GVariant* arguments, const GVariantType* type,
                 GCancellable* cancellable, GVariant** reply) {
  GError* error = nullptr;
  *reply = g_dbus_connection_call_sync(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                       method, arguments, type, G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMilliseconds,
                                       cancellable, &error);
  g_clear_error(&error);
  return *reply != nullptr;
}

// Asks the bus at `address` on a private connection, so that the shared session connection is not bound
// to an address that may change (tests) and a bus that goes away cannot end the process.
bool busHasSecretService(const std::string& address, GCancellable* cancellable) {
  GError* error = nullptr;
  GDBusConnection* bus = g_dbus_connection_new_for_address_sync(
      address.c_str(),
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, cancellable, &error);
  g_clear_error(&error);
  if (!bus) return false;

  bool answers = false;
  GVariant* reply = nullptr;
  if (callReturns(bus, "NameHasOwner", g_variant_new("(s)", kSecretServiceName), G_VARIANT_TYPE("(b)"), cancellable,
                  &reply)) {
    gboolean owned = FALSE;
    g_variant_get(reply, "(b)", &owned);
    answers = owned;
    g_variant_unref(reply);
  }
  if (!answers &&
      callReturns(bus, "ListActivatableNames", nullptr, G_VARIANT_TYPE("(as)"), cancellable, &reply)) {
    GVariantIter* names = nullptr;
    const gchar* name = nullptr;
    g_variant_get(reply, "(as)", &names);
    while (g_variant_iter_next(names, "&s", &name)) {
      if (std::string_view(name) == kSecretServiceName) answers = true;
    }
    g_variant_iter_free(names);
    g_variant_unref(reply);
  }
  g_dbus_connection_close_sync(bus, nullptr, nullptr);
  g_object_unref(bus);
  return answers;
}

void warnOfFileOnce(const char* reason) {
  static std::once_flag warned;
  std::call_once(warned, [reason] {
    ZRVLog::format("Saved logins are kept in a private file in the user's data folder because %@; "
                   "a Secret Service (such as GNOME Keyring) would keep them safer.",
                   reason);
  });
}

}  // namespace

bool secretServiceAnswers() {
  const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
  if (!address || !*address) return false;
  static std::mutex mutex;
  static std::map<std::string, bool> answers;
  std::lock_guard lock(mutex);
  auto known = answers.find(address);
  if (known != answers.end()) return known->second;
  std::string bus = address;
  bool found = runBounded<bool>(kProbeLimit, [bus](GCancellable* cancellable) {
                 return busHasSecretService(bus, cancellable);
               }).value_or(false);
  answers.emplace(bus, found);
  return found;
}

SecretStore& currentSecretStore() {
  const char* forced = std::getenv("ZRV_SECRET_STORE");
  std::string_view choice = forced ? forced : "";
  if (choice == "file") {
    warnOfFileOnce("ZRV_SECRET_STORE=file");
    return fileSecretStore();
  }
  if (choice == "secret-service") return secretServiceStore();
  if (!choice.empty()) {
    static std::once_flag warned;
    std::call_once(warned, [] { ZRVLog::write("Ignoring ZRV_SECRET_STORE: it takes \"secret-service\" or \"file\"."); });
  }
  if (secretServiceAnswers()) return secretServiceStore();
  warnOfFileOnce("no Secret Service answers on the session bus");
  return fileSecretStore();
}

}  // namespace zrv::account
