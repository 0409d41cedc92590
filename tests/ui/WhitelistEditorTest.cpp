// The whitelist editor: sections that follow the switches, the categories-
// only choices and what each saves, the site without a host, and the
// switched-off whitelist package.
#include "PopoverTestSupport.h"

namespace tamsel::ui::testing {
namespace {

using model::ExtensionType;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using CellID = SafariExtensionViewController::CellID;
using Kind = WhitelistViewController::Row::Kind;

class WhitelistEditorTest : public PopoverTest {
protected:
    std::shared_ptr<WhitelistViewController> openEditor(const std::string& url = "https://www.example.com/") {
        openPage(url);
        EXPECT_TRUE(popover->clickRow(CellID::whitelist));
        return child<WhitelistViewController>();
    }

    // Waits for the editor's saves to end.
    void settle(const std::shared_ptr<WhitelistViewController>& editor) {
        ASSERT_TRUE(runUntil([&] { return !editor->isSaving(); }));
        platform::MainRunLoop::drain();
    }

    std::vector<model::Rule> whitelistRules() const { return configurable("whitelist")->rules; }

    static std::vector<Kind> kinds(const std::vector<WhitelistViewController::Row>& rows) {
        std::vector<Kind> found;
        for (const auto& row : rows) found.push_back(row.kind);
        return found;
    }
};

TEST_F(WhitelistEditorTest, TheCategoriesOnlyChoicesAndWhatEachSaves) {
    const auto editor = openEditor();
    ASSERT_TRUE(editor);
    EXPECT_EQ(editor->numberOfSections(), 1);
    EXPECT_EQ(editor->rows().front().switchOn, false);
    EXPECT_EQ(editor->titleText(), "Whitelist");

    // Turning blocking off: disable-all on, no category rows; the site is
    // whitelisted everywhere.
    editor->didChangeTurnOffBlockingSwitch(true);
    EXPECT_EQ(editor->titleText(), "Saving…");
    EXPECT_EQ(editor->numberOfSections(), 2);
    EXPECT_THAT(kinds(editor->rows()), ElementsAre(Kind::turnOffSwitch, Kind::disableAllSwitch));
    EXPECT_EQ(editor->rows()[1].switchOn, true);
    settle(editor);
    EXPECT_EQ(editor->titleText(), "Whitelist");
    ASSERT_EQ(whitelistRules().size(), 1u);
    EXPECT_THAT(whitelistRules()[0].partialWhitelist, IsEmpty());
    EXPECT_TRUE(popover->whitelistEditorDidChange());
    // The popover knows at once, for the rows and the badge's heart.
    EXPECT_EQ(popover->isCurrentDomainWhitelisted(), true);
    EXPECT_THAT(changes, Contains(PopoverChange::badge));

    // Disable-all off reveals the header and the eight categories, none chosen:
    // no category is off, so the site keeps no rule.
    editor->didChangeDisableAllSwitch(false);
    EXPECT_EQ(editor->numberOfSections(), 3);
    const auto rows = editor->rows();
    ASSERT_EQ(rows.size(), 2u + 1u + 8u);
    EXPECT_EQ(rows[2].kind, Kind::categoriesHeader);
    EXPECT_EQ(rows[2].title, "Categories to allow on www.example.com");
    EXPECT_EQ(rows[3].id, "block-ads");
    EXPECT_EQ(rows[3].title, "Ads");
    EXPECT_EQ(rows[3].icon, "block-ads-MacIcon");
    EXPECT_EQ(rows[10].tag, 7);
    settle(editor);
    EXPECT_THAT(whitelistRules(), IsEmpty());

    // Choosing categories, one of them twice.
    ASSERT_TRUE(editor->didChangeContentBlockerSwitch(true, 3));  // social
    ASSERT_TRUE(editor->didChangeContentBlockerSwitch(true, 0));  // ads
    ASSERT_TRUE(editor->didChangeContentBlockerSwitch(true, 3));
    EXPECT_THAT(editor->disabledExtensions(), ElementsAre(ExtensionType::blockSocial, ExtensionType::blockAds));
    settle(editor);
    ASSERT_EQ(whitelistRules().size(), 1u);
    EXPECT_THAT(whitelistRules()[0].partialWhitelist, ElementsAre(ExtensionType::blockSocial, ExtensionType::blockAds));
    EXPECT_THAT(log.lines(), Contains("Changed content blocker switch to true, tag = 3"));

    ASSERT_TRUE(editor->didChangeContentBlockerSwitch(false, 3));
    settle(editor);
    EXPECT_THAT(whitelistRules()[0].partialWhitelist, ElementsAre(ExtensionType::blockAds));

    // Turning blocking back on hides both lower sections, keeps the choice
    // for later, and takes the site off the whitelist.
    editor->didChangeTurnOffBlockingSwitch(false);
    EXPECT_EQ(editor->numberOfSections(), 1);
    EXPECT_THAT(editor->disabledExtensions(), ElementsAre(ExtensionType::blockAds));
    settle(editor);
    EXPECT_THAT(whitelistRules(), IsEmpty());
    EXPECT_EQ(popover->isCurrentDomainWhitelisted(), false);
    EXPECT_THAT(log.lines(), Contains("Changed turn off blocking switch to false"));
    EXPECT_THAT(log.lines(), Contains("Changed disable all switch to false, tag = 0"));
    EXPECT_FALSE(popover->presentedAlert());
}

TEST_F(WhitelistEditorTest, QuickSwitchChangesEndInTheLastChoice) {
    const auto editor = openEditor();
    ASSERT_TRUE(editor);
    editor->didChangeTurnOffBlockingSwitch(true);
    editor->didChangeDisableAllSwitch(false);
    editor->didChangeContentBlockerSwitch(true, 0);
    editor->didChangeContentBlockerSwitch(true, 1);
    settle(editor);
    ASSERT_EQ(whitelistRules().size(), 1u);
    EXPECT_THAT(whitelistRules()[0].partialWhitelist, ElementsAre(ExtensionType::blockAds, ExtensionType::blockTrackers));

    for (const bool off : {false, true, false, true, false}) editor->didChangeTurnOffBlockingSwitch(off);
    settle(editor);
    EXPECT_THAT(whitelistRules(), IsEmpty());
    EXPECT_FALSE(popover->presentedAlert());
}

TEST_F(WhitelistEditorTest, StartsFromTheSitesRule) {
    manager.setConfigurablePackages(
        {model::Package("whitelist", "Whitelist",
                        {*model::makeWhitelistRule({"example.com"}, "W1", "example.com",
                                                   {ExtensionType::blockTrackers, ExtensionType::blockComments})}),
         model::Package("make-https", "Make HTTPS-only", {})});
    const auto editor = openEditor("https://example.com/");
    ASSERT_TRUE(editor);
    EXPECT_TRUE(editor->turnedOffBlocking());
    EXPECT_TRUE(editor->selectedCategoriesOnly());
    EXPECT_THAT(editor->disabledExtensions(), ElementsAre(ExtensionType::blockTrackers, ExtensionType::blockComments));
    EXPECT_EQ(editor->numberOfSections(), 3);
    EXPECT_FALSE(popover->whitelistEditorDidChange());
    EXPECT_FALSE(editor->didChangeContentBlockerSwitch(true, 8));
    EXPECT_FALSE(editor->didChangeContentBlockerSwitch(true, -1));
    EXPECT_FALSE(editor->isSaving());
}

TEST_F(WhitelistEditorTest, WithoutAHostThereIsNoHeaderAndSavingShowsTheCannotResolveAlert) {
    const auto editor = openEditor();
    ASSERT_TRUE(editor);
    delegate->url = "about:blank";
    editor->didChangeTurnOffBlockingSwitch(true);
    editor->didChangeDisableAllSwitch(false);
    for (const auto& row : editor->rows()) EXPECT_NE(row.kind, Kind::categoriesHeader);
    ASSERT_TRUE(popover->presentedAlert());
    EXPECT_EQ(popover->presentedAlert()->messageText(), "The address of this page couldn't be determined.");
    EXPECT_FALSE(editor->isSaving());
    EXPECT_THAT(whitelistRules(), IsEmpty());
}

TEST_F(WhitelistEditorTest, AnIPAddressIsNotSaved) {
    const auto editor = openEditor("http://192.168.0.10/");
    ASSERT_TRUE(editor);
    editor->didChangeTurnOffBlockingSwitch(true);
    EXPECT_FALSE(editor->isSaving());
    EXPECT_TRUE(log.contains("Can't save rule: domain invalid"));
    EXPECT_THAT(whitelistRules(), IsEmpty());
}

TEST_F(WhitelistEditorTest, ASwitchedOffWhitelistIsSwitchedOnOnlyWhenTheUserAgrees) {
    disablePackage("whitelist");
    const auto editor = openEditor();
    ASSERT_TRUE(editor);
    editor->didChangeTurnOffBlockingSwitch(true);
    ASSERT_TRUE(popover->presentedAlert());
    EXPECT_EQ(popover->presentedAlert()->titleText(), "Turn On \"Whitelist\"?");
    EXPECT_TRUE(editor->isSaving());
    ASSERT_TRUE(popover->alertCancel());
    EXPECT_FALSE(editor->isSaving());
    settle(editor);
    EXPECT_THAT(whitelistRules(), IsEmpty());

    editor->didChangeDisableAllSwitch(true);
    ASSERT_TRUE(popover->alertOK());
    settle(editor);
    EXPECT_THAT(log.lines(), Contains("User chose to automatically enable package"));
    EXPECT_FALSE(storage::isDisabled(*configurable("whitelist")));
    EXPECT_EQ(whitelistRules().size(), 1u);
    // The editor stays presented under its alerts.
    EXPECT_TRUE(child<WhitelistViewController>());
}

}  // namespace
}  // namespace tamsel::ui::testing
