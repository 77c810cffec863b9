// The device table built from reports, and its change marks.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "DeviceTable.h"

namespace {

using monitor::ChangeMark;
using monitor::DeviceRow;
using monitor::DeviceTable;

std::string Entry(const std::string& key, const std::string& from, const std::string& to,
                  const std::string& model = "", unsigned vid = 0, unsigned pid = 0, int code = 0) {
  return "{\"key_serial\":\"" + key + "\",\"actual_serial\":\"" + (to == "NotConnect" ? "" : key) +
         "\",\"old_status\":\"" + from + "\",\"new_status\":\"" + to +
         "\",\"vid_manufacturer\":\"" + (vid ? "Google" : "") + "\",\"os_version\":\"" +
         (model.empty() ? "" : "14") + "\",\"model\":\"" + model + "\",\"manufacturer\":\"" +
         (model.empty() ? "" : "Google") + "\",\"vid\":" + std::to_string(vid) +
         ",\"pid\":" + std::to_string(pid) + ",\"adb_error_code\":" + std::to_string(code) + "}";
}

std::string Report(const std::vector<std::string>& entries) {
  std::string text = "{\"changed\":[";
  for (size_t i = 0; i < entries.size(); ++i) text += (i ? "," : "") + entries[i];
  return text + "]}";
}

class Table : public ::testing::Test {
 protected:
  void Apply(const std::vector<std::string>& entries) {
    std::string error;
    ASSERT_TRUE(table_.Apply(Report(entries), &error)) << error;
  }
  DeviceRow Row(const std::string& key) {
    for (const DeviceRow& row : table_.Rows()) {
      if (row.key_serial == key) return row;
    }
    ADD_FAILURE() << "no row " << key;
    return {};
  }
  DeviceTable table_;
};

TEST_F(Table, MarksFollowALifeFromArrivalToDeparture) {
  EXPECT_FALSE(table_.HasReport());
  Apply({Entry("b", "NotConnect", "MtpConnect", "", 0x18d1, 0x4ee1),
         Entry("a", "NotConnect", "UnauthoredConnect", "", 0, 0, -1)});
  EXPECT_TRUE(table_.HasReport());
  EXPECT_EQ(-1, table_.LastAdbErrorCode());
  ASSERT_EQ(2u, table_.Rows().size());
  EXPECT_EQ("a", table_.Rows()[0].key_serial) << "rows in key order";
  EXPECT_EQ(ChangeMark::kArrived, Row("a").mark);
  EXPECT_EQ(ChangeMark::kArrived, Row("b").mark);

  Apply({Entry("b", "MtpConnect", "AuthoredConnect", "Pixel 7", 0x18d1, 0x4ee7)});
  EXPECT_EQ(ChangeMark::kNone, Row("a").mark) << "untouched by this report";
  const DeviceRow b = Row("b");
  EXPECT_EQ(ChangeMark::kChanged, b.mark);
  EXPECT_EQ("AuthoredConnect", b.status);
  EXPECT_EQ("MtpConnect", b.previous_status);
  EXPECT_EQ("Pixel 7", b.model);
  EXPECT_EQ(0x4ee7u, b.pid);
  EXPECT_EQ(0, table_.LastAdbErrorCode()) << "the last report's code, also when it is 0 again";

  Apply({Entry("b", "AuthoredConnect", "NotConnect")});
  EXPECT_EQ(ChangeMark::kLeft, Row("b").mark);
  EXPECT_EQ("Pixel 7", Row("b").model) << "a device that left keeps what was known of it";
  EXPECT_EQ(1u, table_.PresentCount());

  Apply({Entry("a", "UnauthoredConnect", "AuthoredConnect", "Pixel 8")});
  EXPECT_EQ(1u, table_.Rows().size()) << "the row that left goes with the next report";
  EXPECT_EQ(ChangeMark::kChanged, Row("a").mark);
}

TEST_F(Table, ADeviceThatComesBackIsAnArrivalAgain) {
  Apply({Entry("a", "NotConnect", "AuthoredConnect", "M")});
  Apply({Entry("a", "AuthoredConnect", "NotConnect")});
  Apply({Entry("a", "NotConnect", "OfflineConnect")});
  EXPECT_EQ(ChangeMark::kArrived, Row("a").mark);
  EXPECT_EQ("OfflineConnect", Row("a").status);
}

TEST_F(Table, MalformedReportsChangeNothing) {
  Apply({Entry("a", "NotConnect", "AuthoredConnect", "M")});
  for (const std::string& bad :
       {std::string(""), std::string("{"), std::string("[]"), std::string("{\"changed\":{}}"),
        std::string("{\"changed\":[1]}"), std::string("{\"changed\":[{\"key_serial\":3}]}"),
        std::string("{\"changed\":[{\"key_serial\":\"z\"}]}")}) {
    std::string error;
    EXPECT_FALSE(table_.Apply(bad, &error)) << bad;
    EXPECT_FALSE(error.empty());
  }
  ASSERT_EQ(1u, table_.Rows().size());
  EXPECT_EQ(ChangeMark::kArrived, Row("a").mark);
}

TEST_F(Table, WrongTypesForOptionalMembersReadAsUnknown) {
  std::string error;
  ASSERT_TRUE(table_.Apply(
      R"({"changed":[{"key_serial":"k","new_status":"MtpConnect","vid":-5,"pid":"x","model":7}]})",
      &error)) << error;
  const DeviceRow k = Row("k");
  EXPECT_EQ(0u, k.vid);
  EXPECT_EQ(0u, k.pid);
  EXPECT_EQ("", k.model);
  EXPECT_EQ(ChangeMark::kArrived, k.mark);
}

}  // namespace
