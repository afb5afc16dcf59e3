// The self-test: its output on standard output and the key it leaves behind.
#include <regex>
#include <sstream>

#include "memory_test_util.h"

namespace {

class PerfTest : public rxtest::MemoryTest {};

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

TEST_F(PerfTest, PrintsThreeTimingsAndLeavesPerfAsData) {
  auto r = rxtest::startModule<rxtest::Recorder>(broker, "R");
  memory->subscribeToEvent(RX::Memory::keyAddedKey, "R", "onEvent");

  testing::internal::CaptureStdout();
  memory->perf();
  const std::string out = testing::internal::GetCapturedStdout();

  ASSERT_FALSE(out.empty());
  EXPECT_EQ('\n', out.back());
  const std::vector<std::string> lines = linesOf(out);
  ASSERT_EQ(6u, lines.size()) << out;
  EXPECT_EQ("1000 Direct call", lines[0]);
  EXPECT_EQ("1000 Specialized proxy call", lines[2]);
  EXPECT_EQ("1000 Proxy call", lines[4]);
  const std::regex wholeMilliseconds("time: (0|[1-9][0-9]*)");
  for (std::size_t i : {1u, 3u, 5u}) EXPECT_TRUE(std::regex_match(lines[i], wholeMilliseconds)) << lines[i];

  const RX::RXValue perf = memory->getData("perf");
  EXPECT_TRUE(perf.isInt());
  EXPECT_EQ(1, perf.toInt());
  EXPECT_EQ("Data", memory->getStrDataType("perf"));
  drain(r);
  EXPECT_EQ((std::vector<std::string>{"RXMemory/KeyAdded=perf"}), r->keyValues())
      << "created once, then overwritten";
}

// Nothing is caught: a module that the broker cannot find by name stops after
// the lines printed so far.
TEST(PerfFailureTest, ProxyLookUpFailureLeavesPerf) {
  auto broker = RX::RXBroker::create("unregistered-broker");
  auto memory = boost::make_shared<RX::RXMemory>(broker, "RXMemory");
  testing::internal::CaptureStdout();
  std::string error;
  try {
    memory->perf();
  } catch (const RX::ModuleNotFoundError& e) {
    error = e.what();
  }
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ("Module not found: RXMemory", error);
  const std::vector<std::string> lines = linesOf(out);
  ASSERT_EQ(3u, lines.size()) << out;
  EXPECT_EQ("1000 Specialized proxy call", lines[2]);
  EXPECT_EQ(1, memory->getData("perf").toInt());
  memory.reset();
  broker->shutdown();
}

}  // namespace
