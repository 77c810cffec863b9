// The poll thread as it runs in the library, asking Debian's adb through the real ADB service
// library, with a phone that hangs attached to it.
#include <gtest/gtest.h>

#include <memory>

#include "AndListenerEx.h"
#include "ListenerTestSupport.h"
#include "PrivateAdbServer.h"
#include "SimPhone.h"

namespace {

using namespace std::chrono_literals;
using PollThroughRealAdb = ListenerTest;

TEST_F(PollThroughRealAdb, AHungPhoneDelaysNeitherOtherPhonesNorTheStop) {
  if (sim_phone::PrivateAdbServer::FindAdb().empty()) GTEST_SKIP() << "adb is not installed";
  sim_phone::PrivateAdbServer server;
  server.ApplyToThisProcess();
  std::string why;
  ASSERT_TRUE(server.Start(&why)) << why;
  const auto phone = [](const std::string& model, bool shell_answers) {
    sim_phone::PhoneConfig config;
    config.model = model;
    config.shell_answers = shell_answers;
    return std::make_unique<sim_phone::SimPhone>(config);
  };
  auto hung = phone("Hung", false);
  ASSERT_TRUE(server.Connect(hung->port()));
  auto listener = std::make_unique<AndListenerEx>(reports::Collect, ListenerWiring{&watcher_});
  ASSERT_EQ(0, listener->StartListen());
  // Reported though it never answers, once its details' wait has run out.
  ASSERT_TRUE(Reported(hung->serial(), "AuthoredConnect", 10s));
  // Another phone is reported meanwhile, with its model, while the hung one's reads still wait.
  auto other = phone("Other", true);
  ASSERT_TRUE(server.Connect(other->port()));
  EXPECT_TRUE(Reported(other->serial(), "AuthoredConnect", 8s, "Other"));

  listener->StopListen();
  const size_t at_stop = reports::All().size();
  listener.reset();  // waits for the poll thread, and for the reads under way
  EXPECT_LE(reports::All().size(), at_stop + 1);
}

}  // namespace
