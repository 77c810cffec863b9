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
using Clock = std::chrono::steady_clock;
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
  // Reported though it never answers: its reads cost the first poll the property bound, and
  // libTarnwell's cool-down answers the next ones at once (bench_poll measures them).
  ASSERT_TRUE(Reported(hung->serial(), "AuthoredConnect", 10s));

  // Another phone is reported promptly meanwhile.
  auto other = phone("Other", true);
  ASSERT_TRUE(server.Connect(other->port()));
  EXPECT_TRUE(Reported(other->serial(), "AuthoredConnect", 2s));
  // On a loaded machine its first reads may miss their bound; the model then follows later.
  EXPECT_TRUE(Reported(other->serial(), "AuthoredConnect", 8s, "Other"));

  const auto stop = Clock::now();
  listener->StopListen();
  const size_t at_stop = reports::All().size();
  listener.reset();  // waits for the poll thread to end
  EXPECT_LT(Clock::now() - stop, 2500ms);
  EXPECT_LE(reports::All().size(), at_stop + 1);
}

}  // namespace
