#pragma once

// The user's display preferences. The button preferences live in the app
// group's defaults; the device flags in the cloud store, so that every device
// of the user sees which kinds of device the user has. Missing means false.
namespace tamsel::settings {

struct User {
    static bool prefersPauseButtonHidden();
    static void setPrefersPauseButtonHidden(bool value);
    static bool prefersHeartButtonHidden();
    static void setPrefersHeartButtonHidden(bool value);

    static bool hasMac();
    static void setHasMac(bool value);
    static bool hasiPhone();
    static void setHasiPhone(bool value);
    static bool hasiPad();
    static void setHasiPad(bool value);
};

}  // namespace tamsel::settings
