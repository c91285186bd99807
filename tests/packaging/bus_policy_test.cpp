// The bus policy that is shipped, on a bus with the stock policies of a system bus.

#include <grp.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>

#include "daemon/harness.h"
#include "support/background.h"

namespace {

constexpr char kStock[] =
    "<policy context=\"default\"><allow user=\"*\"/><deny own=\"*\"/>"
    "<deny send_type=\"method_call\"/><allow send_type=\"signal\"/>"
    "<allow send_requested_reply=\"true\" send_type=\"method_return\"/>"
    "<allow send_requested_reply=\"true\" send_type=\"error\"/>"
    "<allow receive_type=\"method_call\"/><allow receive_type=\"method_return\"/>"
    "<allow receive_type=\"error\"/><allow receive_type=\"signal\"/>"
    "<allow send_destination=\"org.freedesktop.DBus\" "
    "send_interface=\"org.freedesktop.DBus\"/></policy>";

// The bus wants users that exist: those that every Debian has, with these numbers.
constexpr unsigned kService = 1;       // daemon
constexpr unsigned kGroup = 60;        // games
constexpr unsigned kStranger = 65534;  // nobody
constexpr unsigned kMember = 2;        // bin

void replaceAll(std::string& text, const std::string& what, const std::string& with) {
  for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += with.size())
    text.replace(at, what.size(), with);
}

/// The shipped policies with numbers for names, behind the stock ones.
std::string policies() {
  std::string text = test::readFile(QS_PACKAGING "/com.wexel.Quillspeak.conf");
  replaceAll(text, "user=\"quillspeak\"", "user=\"" + std::to_string(kService) + "\"");
  replaceAll(text, "group=\"quillspeak\"", "group=\"" + std::to_string(kGroup) + "\"");
  const std::size_t first = text.find("<busconfig>") + std::strlen("<busconfig>");
  return kStock + text.substr(first, text.find("</busconfig>") - first);
}

/// Makes the calling thread, and no other, that user with that group beside its own: the raw system
/// calls, unlike the C library's, are the thread's alone.
void become(unsigned user, unsigned group) {
  EXPECT_EQ(syscall(SYS_setgroups, 1, &group), 0);
  if (user == 0) return;
  EXPECT_EQ(syscall(SYS_setresgid, user, user, user), 0);
  EXPECT_EQ(syscall(SYS_setresuid, user, user, user), 0);
}

class BusPolicy : public testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "only root can be several users";
    chmod(folder.path().c_str(), 0755);
    bus.emplace(folder, policies());
  }

  template <typename Work>
  auto as(unsigned user, unsigned group, Work work) {
    return test::Background([=, this] {
             become(user, group);
             test::Client client(bus->address());
             return work(client);
           })
        .get();
  }

  test::ScratchFolder folder;
  std::optional<test::PrivateBus> bus;
};

TEST_F(BusPolicy, LetsOnlyTheServiceAndRootHaveTheName) {
  for (const auto& [user, group, may] : {std::tuple(kService, kService, true),
                                         {0U, 0U, true},
                                         {kStranger, kStranger, false},
                                         {kMember, kGroup, false}}) {
    EXPECT_EQ(as(user, group,
                 [](test::Client& client) {
                   return sd_bus_request_name(client.bus(), test::kService, 0) >= 0;
                 }),
              may)
        << user;
  }
}

int answer(sd_bus_message* call, void*, sd_bus_error*) {
  return sd_bus_message_is_method_call(call, nullptr, nullptr) > 0
             ? sd_bus_reply_method_return(call, "")
             : 0;
}

TEST_F(BusPolicy, LetsEverybodySpeakAndTheGroupDoTheRest) {
  std::atomic<bool> over{false};
  std::atomic<bool> served{false};
  test::Background service([&] {
    become(kService, kService);
    test::Client client(bus->address());
    sd_bus_add_filter(client.bus(), nullptr, answer, nullptr);
    served = sd_bus_request_name(client.bus(), test::kService, 0) >= 0;
    while (!over) {
      sd_bus_emit_signal(client.bus(), test::kPath, test::kInterface, "ReportTTSPlayResult",
                         "asuuuut", 0, 0, 0, 0, 0, std::uint64_t{0});
      client.listen(std::chrono::milliseconds(20));
    }
  });
  const char* const kIntrospectable = "org.freedesktop.DBus.Introspectable";
  const struct {
    const char* interface;
    const char* method;
    bool everybody;
    bool group;
  } kRows[] = {
      {test::kInterface, "DoTTSAndPlay", true, true},
      {test::kInterface, "StopTTSPlay", true, true},
      {test::kProperties, "Get", true, true},
      {test::kProperties, "GetAll", true, true},
      {kIntrospectable, "Introspect", true, true},
      {"org.freedesktop.DBus.Peer", "GetMachineId", true, true},
      {test::kInterface, "DoTTSFetchInFile", false, true},
      {test::kInterface, "ReloadConfig", false, true},
      {test::kInterface, "SetVolume", false, true},
      {test::kProperties, "Set", false, false},
      {"", "DoTTSAndPlay", false, false},
      {"", "ReloadConfig", false, false},
      {"", "SetVolume", false, false},
  };
  for (const auto& [user, group, trusted] :
       {std::tuple(kStranger, kStranger, false), {kMember, kGroup, true}, {0U, 0U, true}}) {
    as(user, group, [&, trusted = trusted, user = user](test::Client& client) {
      EXPECT_TRUE(client.awaitName());
      for (const auto& row : kRows) {
        const std::string error = client.call(row.interface, row.method).error;
        const char* const expected =
            (trusted ? row.group : row.everybody) ? "" : "org.freedesktop.DBus.Error.AccessDenied";
        EXPECT_EQ(error, expected) << user << " " << row.interface << " " << row.method;
      }
      EXPECT_TRUE(client.until([&] { return client.isReported(0); })) << "no signal for " << user;
      return true;
    });
  }
  over = true;
  service.get();
  EXPECT_TRUE(served);
}

}  // namespace
