// The detail cache: what is asked of ADB for authorised phones, when, and what the report shows.
#include <gtest/gtest.h>

#include <mutex>

#include "AndListenerEx.h"
#include "FakeTarnwell.h"
#include "ListenerTestSupport.h"
#include "LogCapture.h"

namespace {

constexpr const char* kVersion = "ro.build.version.release";
constexpr const char* kManufacturer = "ro.product.manufacturer";
constexpr const char* kModel = "ro.product.model";

// Answers per property: a code and a text; every call is counted.
struct PhoneScript {
  std::mutex mutex;
  std::map<std::string, std::pair<int, std::string>> answers{
      {kVersion, {0, "14"}}, {kManufacturer, {0, "Google"}}, {kModel, {0, "Pixel 8"}}};
  std::map<std::string, int> calls;

  void Install() {
    fake_adb::Script script;
    script.property = [this](const std::string&, const std::string& property, std::string* value) {
      std::lock_guard<std::mutex> lock(mutex);
      ++calls[property];
      *value = answers[property].second;
      return answers[property].first;
    };
    fake_adb::SetScript(script);
  }
  void Answer(const std::string& property, int code, const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex);
    answers[property] = {code, text};
  }
  int Calls(const std::string& property) {
    std::lock_guard<std::mutex> lock(mutex);
    return calls[property];
  }
};

class DetailLookup : public ::testing::Test {
 protected:
  void SetUp() override {
    LoadTestConfiguration();
    fake_adb::Reset();
    log_capture::Clear();
    reports::Clear();
    phone_.Install();
  }
  // One poll with the phone attached over USB and listed by ADB in this state.
  Json::Value Poll(DeviceAuthorStatus status, bool attached = true) {
    const UsbTable usb = UsbTableOf({UsbDevice("GX7", 6353, 20199, "Google", "Pixel\\u 8 USB")});
    const AdbTable adb = AdbTableOf({{"GX7", status}});
    const size_t before = reports::All().size();
    listener_.DealListenInfo(attached ? &usb : &empty_usb_, attached ? &adb : &empty_adb_,
                             &previous_, 0, &last_code_);
    const auto all = reports::All();
    return all.size() > before ? ParseJson(all.back())["changed"][0] : Json::Value();
  }
  const DeviceInfo_& Record() { return listener_.DetailCache().at("gx7"); }

  PhoneScript phone_;
  AndListenerEx listener_{reports::Collect};
  std::map<std::string, DeviceBasicInfo_> previous_;
  int last_code_ = 0;
  const UsbTable empty_usb_;
  const AdbTable empty_adb_;
};

TEST_F(DetailLookup, AUsbOnlyPhoneIsCachedWithoutAskingAdb) {
  const UsbTable usb = UsbTableOf({UsbDevice("GX7", 6353, 20199, "Google", "Pixel\\u 8 USB")});
  listener_.DealListenInfo(&usb, nullptr, &previous_, 0, &last_code_);
  EXPECT_EQ(MtpConnect, Record().status);
  EXPECT_EQ("Pixel\\u 8 USB", Record().usb_product);
  EXPECT_EQ(0, phone_.Calls(kVersion) + phone_.Calls(kManufacturer) + phone_.Calls(kModel));
}

TEST_F(DetailLookup, DetailsAreFetchedOnceAndKeptWhileThePhoneStays) {
  const Json::Value entry = Poll(DeviceAuthored);
  EXPECT_EQ("14", entry["os_version"].asString());
  EXPECT_EQ("Google", entry["manufacturer"].asString());
  EXPECT_EQ("Pixel 8", entry["model"].asString());
  for (int i = 0; i < 3; ++i) Poll(DeviceAuthored);
  EXPECT_EQ(1, phone_.Calls(kVersion));
  EXPECT_EQ(1, phone_.Calls(kManufacturer));
  EXPECT_EQ(1, phone_.Calls(kModel));

  // Back to unauthorised: ADB's texts stay cached, the report falls back to the USB side.
  const Json::Value unauthorised = Poll(DeviceUnauthored);
  EXPECT_EQ("", unauthorised["manufacturer"].asString());
  EXPECT_EQ("Pixel 8 USB", unauthorised["model"].asString());
  EXPECT_EQ("14", unauthorised["os_version"].asString());
  EXPECT_EQ("Pixel 8", Record().adb_model);

  // Gone and back: asked afresh.
  Poll(DeviceAuthored, false);
  EXPECT_TRUE(listener_.DetailCache().empty());
  Poll(DeviceAuthored);
  EXPECT_EQ(2, phone_.Calls(kModel));
}

TEST_F(DetailLookup, AVersionThatKeepsFailingIsTriedFiveTimesPerPollSilently) {
  phone_.Answer(kVersion, 105, "");
  const Json::Value entry = Poll(DeviceAuthored);
  EXPECT_EQ(5, phone_.Calls(kVersion));
  EXPECT_EQ("", entry["os_version"].asString());
  EXPECT_EQ("Google", entry["manufacturer"].asString());
  EXPECT_EQ("Pixel 8", entry["model"].asString());
  EXPECT_TRUE(log_capture::Lines().size() == 2u) << "only the report and the callback's answer";

  phone_.Answer(kVersion, 0, "15");
  Poll(DeviceAuthored);
  EXPECT_EQ(6, phone_.Calls(kVersion));
  EXPECT_EQ("15", Record().os_version);
}

TEST_F(DetailLookup, AClosedConnectionStopsThePollsLookupAndIsLoggedOnce) {
  phone_.Answer(kVersion, 0, "error: closed");
  const Json::Value entry = Poll(DeviceAuthored);
  EXPECT_EQ(1, log_capture::Count(3, "AdbGetPhoneSoftVersion() error code：0， buffer：error: closed"));
  EXPECT_EQ(0, phone_.Calls(kManufacturer));
  EXPECT_EQ(0, phone_.Calls(kModel));
  EXPECT_EQ("", entry["os_version"].asString());
  EXPECT_EQ("", entry["manufacturer"].asString());
  EXPECT_EQ("Pixel 8 USB", entry["model"].asString());
}

TEST_F(DetailLookup, AFailingManufacturerOrModelQueryIsLoggedAndRetriedNextPoll) {
  phone_.Answer(kManufacturer, 104, "");
  Poll(DeviceAuthored);
  EXPECT_EQ(1, log_capture::Count(3, "AdbGetPhoneManufacturer() error 104"));
  EXPECT_EQ(0, phone_.Calls(kModel));

  phone_.Answer(kManufacturer, 0, "Google");
  phone_.Answer(kModel, 106, "");
  Poll(DeviceAuthored);
  EXPECT_EQ(1, log_capture::Count(3, "AdbGetPhoneProductModel() error 106"));
  EXPECT_EQ("Google", Record().manufacturer);
  EXPECT_EQ("", Record().model);

  phone_.Answer(kModel, 0, "Pixel 8");
  Poll(DeviceAuthored);
  EXPECT_EQ("Pixel 8", Record().model);
  EXPECT_EQ(1, phone_.Calls(kVersion));
}

TEST_F(DetailLookup, AnEmptyAnswerIsAskedAgainOnTheNextPoll) {
  phone_.Answer(kModel, 0, "");
  Poll(DeviceAuthored);
  Poll(DeviceAuthored);
  EXPECT_EQ(2, phone_.Calls(kModel));
  EXPECT_EQ(1, phone_.Calls(kManufacturer));
}

}  // namespace
