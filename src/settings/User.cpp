#include "settings/User.h"

#include "platform/Stores.h"
#include "settings/Keys.h"

namespace tamsel::settings {
namespace {

bool shared(const char* key) { return platform::SharedDefaults::shared()->boolValue(key); }
void setShared(const char* key, bool value) { platform::SharedDefaults::shared()->set(value, key); }
bool cloud(const char* key) { return platform::UbiquitousStore::shared()->boolValue(key); }
void setCloud(const char* key, bool value) { platform::UbiquitousStore::shared()->set(value, key); }

}  // namespace

bool User::prefersPauseButtonHidden() { return shared(Keys::userPrefersPauseButtonHidden); }
void User::setPrefersPauseButtonHidden(bool value) { setShared(Keys::userPrefersPauseButtonHidden, value); }
bool User::prefersHeartButtonHidden() { return shared(Keys::userPrefersHeartButtonHidden); }
void User::setPrefersHeartButtonHidden(bool value) { setShared(Keys::userPrefersHeartButtonHidden, value); }

bool User::hasMac() { return cloud(Keys::userHasMacDevice); }
void User::setHasMac(bool value) { setCloud(Keys::userHasMacDevice, value); }
bool User::hasiPhone() { return cloud(Keys::userHasiPhoneDevice); }
void User::setHasiPhone(bool value) { setCloud(Keys::userHasiPhoneDevice, value); }
bool User::hasiPad() { return cloud(Keys::userHasiPadDevice); }
void User::setHasiPad(bool value) { setCloud(Keys::userHasiPadDevice, value); }

}  // namespace tamsel::settings
