#include <gtest/gtest.h>
#include <plist/plist.h>

#include <chrono>
#include <clocale>
#include <unordered_set>

#include "platform/Stores.h"
#include "support/TestSupport.h"
#include "updates/MetadataManifest.h"
#include "updates/UpdateManager.h"
#include "updates/VersionDateFormatter.h"

#include <set>

namespace tamsel::updates {
namespace {

using namespace std::chrono;

platform::Date at(int y, unsigned m, unsigned d, int hh, int mm, int ss) {
    return platform::Date(sys_days(year(y) / month(m) / day(d)) + hours(hh) + minutes(mm) + seconds(ss));
}

TEST(VersionDateFormatterTest, WritesEnglishDayAndMonthNamesInUTC) {
    const VersionDateFormatter formatter;
    EXPECT_EQ(formatter.string(at(2024, 3, 5, 12, 34, 56)), "Tue, 05 Mar 2024 12:34:56 GMT");
    EXPECT_EQ(formatter.string(at(1999, 12, 31, 23, 59, 59) + milliseconds(999)), "Fri, 31 Dec 1999 23:59:59 GMT");
    EXPECT_EQ(formatter.string(at(2001, 1, 1, 0, 0, 0)), "Mon, 01 Jan 2001 00:00:00 GMT");
}

TEST(VersionDateFormatterTest, ReadsWhatItWritesAndHTTPDates) {
    const VersionDateFormatter formatter;
    for (auto date : {at(2024, 2, 29, 1, 2, 3), at(1970, 1, 1, 0, 0, 0), at(2038, 1, 19, 3, 14, 8)}) {
        EXPECT_EQ(formatter.date(formatter.string(date)), date);
    }
    EXPECT_EQ(formatter.date("Sun, 06 Nov 1994 08:49:37 GMT"), at(1994, 11, 6, 8, 49, 37));
}

TEST(VersionDateFormatterTest, ReadsOtherZones) {
    const VersionDateFormatter formatter;
    const auto noonUTC = at(2024, 7, 1, 12, 0, 0);
    EXPECT_EQ(formatter.date("Mon, 01 Jul 2024 12:00:00 UTC"), noonUTC);
    EXPECT_EQ(formatter.date("Mon, 01 Jul 2024 05:00:00 PDT"), noonUTC);
    EXPECT_EQ(formatter.date("Mon, 01 Jul 2024 14:00:00 GMT+2"), noonUTC);
    EXPECT_EQ(formatter.date("Mon, 01 Jul 2024 17:30:00 GMT+05:30"), noonUTC);
    EXPECT_EQ(formatter.date("Mon, 01 Jul 2024 07:00:00 -0500"), noonUTC);
    EXPECT_EQ(formatter.date("Mon, 01 Jul 2024 14:00:00 CEST"), noonUTC);
    EXPECT_EQ(formatter.date("Mon, 01 Jul 2024 06:30:00 GMT-05:30"), noonUTC);
}

TEST(VersionDateFormatterTest, RejectsWhatIsNotADateInTheFormat) {
    const VersionDateFormatter formatter;
    for (const char* text : {"", "yesterday", "2024-03-05T12:34:56Z", "Tue, 05 Mar 2024 12:34:56",
                             "Tue, 30 Feb 2024 12:00:00 GMT", "Tue, 05 Mrz 2024 12:34:56 GMT",
                             "Tue, 05 Mar 2024 24:00:00 GMT", "Tue, 05 Mar 2024 12:34:56 GMT trailing",
                             "Xyz, 05 Mar 2024 12:34:56 GMT", "Tue, 05 Mar 2024 12:34:56 XYZ",
                             "Tue, 05 Mar 2024 12:34:56 GMT+19"}) {
        EXPECT_FALSE(formatter.date(text).has_value()) << text;
    }
}

TEST(VersionDateFormatterTest, IgnoresTheProcessLocale) {
    // Whatever locale the process runs in, names stay English.
    const char* previous = std::setlocale(LC_ALL, nullptr);
    const std::string saved = previous ? previous : "C";
    for (const char* locale : {"de_DE.UTF-8", "fr_FR.UTF-8", "C.UTF-8"}) {
        if (std::setlocale(LC_ALL, locale) == nullptr) continue;
        EXPECT_EQ(VersionDateFormatter().string(at(2024, 3, 5, 12, 34, 56)), "Tue, 05 Mar 2024 12:34:56 GMT");
    }
    std::setlocale(LC_ALL, saved.c_str());
}

TEST(StoredDatesTest, LocalVersionAndDownloadedFiltersDateReadBackAsDates) {
    testing::ScopedDataRoot root;
    EXPECT_FALSE(UpdateManager::localVersionDate().has_value());
    EXPECT_FALSE(UpdateManager::downloadedFiltersDate().has_value());

    const auto date = at(2023, 10, 9, 8, 7, 6);
    UpdateManager::setDownloadedFiltersDate(date);
    EXPECT_EQ(platform::SharedDefaults::shared()->string("downloadedFiltersDate"), "Mon, 09 Oct 2023 08:07:06 GMT");
    EXPECT_EQ(UpdateManager::downloadedFiltersDate(), date);
    UpdateManager::setDownloadedFiltersDate(std::nullopt);
    EXPECT_FALSE(platform::SharedDefaults::shared()->value("downloadedFiltersDate").has_value());

    platform::SharedDefaults::shared()->set(platform::Value("Mon, 09 Oct 2023 08:07:06 GMT"), "localVersion");
    EXPECT_EQ(UpdateManager::localVersionDate(), date);
    platform::SharedDefaults::shared()->set(platform::Value("not a date"), "localVersion");
    EXPECT_FALSE(UpdateManager::localVersionDate().has_value());
    platform::SharedDefaults::shared()->set(platform::Value(42), "downloadedFiltersDate");
    EXPECT_FALSE(UpdateManager::downloadedFiltersDate().has_value());
}

TEST(MetadataManifestTest, DecodesBothPropertyListForms) {
    // Before and after the property lists' reference date (2001-01-01), with
    // a fraction of a second that neither form keeps.
    for (const auto date : {at(2024, 3, 5, 12, 34, 56), at(1999, 12, 31, 23, 59, 58)}) {
        const MetadataManifest sample{"a1b2c3", date + microseconds(250000), 31457280};
        const MetadataManifest expected{"a1b2c3", date, 31457280};
        for (const auto& encoded : {sample.encodeXML(), sample.encodeBinary()}) {
            auto decoded = MetadataManifest::decode(encoded);
            ASSERT_TRUE(decoded.has_value()) << decoded.error();
            EXPECT_EQ(*decoded, expected) << VersionDateFormatter().string(decoded->date);
            EXPECT_EQ(std::hash<MetadataManifest>{}(*decoded), std::hash<MetadataManifest>{}(expected));
        }
    }
}

// A binary manifest as another writer may send it: a real number of seconds
// since 2001-01-01, with a fraction.
std::string foreignBinaryManifest(std::int32_t sinceReference, std::int32_t microsecondPart) {
    plist_t dictionary = plist_new_dict();
    plist_dict_set_item(dictionary, "id", plist_new_string("x"));
    plist_dict_set_item(dictionary, "date", plist_new_date(sinceReference, microsecondPart));
    plist_dict_set_item(dictionary, "size", plist_new_uint(7));
    char* bytes = nullptr;
    std::uint32_t length = 0;
    plist_to_bin(dictionary, &bytes, &length);
    const std::string binary(bytes, length);
    plist_to_bin_free(bytes);
    plist_free(dictionary);
    return binary;
}

TEST(MetadataManifestTest, DatesFarFromTodayStayDistinctVersions) {
    // The property-list library's own accessors take 32-bit seconds from 2001,
    // which hold only 1933 to 2069.
    const std::vector<std::pair<platform::Date, std::string>> dates{
        {at(2100, 1, 1, 0, 0, 0), "Fri, 01 Jan 2100 00:00:00 GMT"},
        {at(9999, 12, 31, 23, 59, 59), "Fri, 31 Dec 9999 23:59:59 GMT"},
        {at(1900, 1, 1, 0, 0, 0), "Mon, 01 Jan 1900 00:00:00 GMT"},
        {at(1932, 12, 13, 20, 45, 52), "Tue, 13 Dec 1932 20:45:52 GMT"},
    };
    std::set<std::string> versions;
    for (const auto& [date, version] : dates) {
        const MetadataManifest manifest{"far", date, 1};
        for (const auto& encoded : {manifest.encodeXML(), manifest.encodeBinary()}) {
            auto decoded = MetadataManifest::decode(encoded);
            ASSERT_TRUE(decoded.has_value()) << decoded.error();
            EXPECT_EQ(decoded->date, date) << version;
            EXPECT_EQ(VersionDateFormatter().string(decoded->date), version);
            EXPECT_EQ(VersionDateFormatter().date(version), date);
            versions.insert(VersionDateFormatter().string(decoded->date));
        }
    }
    EXPECT_EQ(versions.size(), dates.size());

    // Before 2001 a fraction of a second still rounds toward the past.
    auto decoded = MetadataManifest::decode(foreignBinaryManifest(-2, 500000));  // -1.5 s: 23:59:58.5
    ASSERT_TRUE(decoded.has_value()) << decoded.error();
    EXPECT_EQ(decoded->date, at(2000, 12, 31, 23, 59, 58));
}

TEST(MetadataManifestTest, RefusesDatesBeyondTheFourDigitYears) {
    const std::string xml = R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict>)"
                            R"(<key>id</key><string>x</string><key>date</key><date>0999-01-01T00:00:00Z</date>)"
                            R"(<key>size</key><integer>1</integer></dict></plist>)";
    auto decoded = MetadataManifest::decode(xml);
    ASSERT_FALSE(decoded.has_value());
    EXPECT_EQ(decoded.error(), "The value of \"date\" is outside the years 1000 to 9999");
}

TEST(MetadataManifestTest, DecodesAHandWrittenManifestAndIgnoresOtherKeys) {
    const std::string xml = R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
  <key>comment</key><string>ignored</string>
  <key>date</key><date>2024-03-05T12:34:56Z</date>
  <key>id</key><string>v4-2024-03-05</string>
  <key>size</key><real>1024</real>
</dict>
</plist>
)";
    auto decoded = MetadataManifest::decode(xml);
    ASSERT_TRUE(decoded.has_value()) << decoded.error();
    EXPECT_EQ(decoded->id, "v4-2024-03-05");
    EXPECT_EQ(decoded->date, at(2024, 3, 5, 12, 34, 56));
    EXPECT_EQ(decoded->size, 1024);
}

TEST(MetadataManifestTest, DropsTheFractionOfAForeignBinaryManifestsDate) {
    auto decoded = MetadataManifest::decode(foreignBinaryManifest(763389296, 750000));
    ASSERT_TRUE(decoded.has_value()) << decoded.error();
    EXPECT_EQ(VersionDateFormatter().string(decoded->date), "Tue, 11 Mar 2025 12:34:56 GMT");
    EXPECT_EQ(decoded->date, at(2025, 3, 11, 12, 34, 56));
}

TEST(MetadataManifestTest, RejectsEverythingElse) {
    const auto manifestWith = [](const std::string& body) {
        return R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict>)" + body + "</dict></plist>";
    };
    const std::string id = "<key>id</key><string>x</string>";
    const std::string date = "<key>date</key><date>2024-03-05T12:34:56Z</date>";
    const std::string size = "<key>size</key><integer>5</integer>";
    for (const std::string& bytes : {
             std::string(""),
             std::string("{\"id\": \"json is not a property list\"}"),
             std::string("<html><body>Not Found</body></html>"),
             std::string("bplist00 truncated"),
             std::string(R"(<?xml version="1.0"?><plist version="1.0"><array><string>x</string></array></plist>)"),
             manifestWith(date + size),
             manifestWith(id + size),
             manifestWith(id + date),
             manifestWith("<key>id</key><integer>1</integer>" + date + size),
             manifestWith(id + "<key>date</key><string>2024-03-05</string>" + size),
             manifestWith(id + date + "<key>size</key><string>5</string>"),
             manifestWith(id + date + "<key>size</key><real>5.5</real>"),
         }) {
        EXPECT_FALSE(MetadataManifest::decode(bytes).has_value()) << bytes;
    }
}

}  // namespace
}  // namespace tamsel::updates
