// The service directory: registration, lookup, removal, the announcements
// that go with them, and registrations from several threads.
#include "mz/session.h"

#include <gtest/gtest.h>

#include <set>
#include <thread>

#include "support/capture.h"

namespace {

using testsupport::errorOf;

mz::AnyObject makeService() { return mz::AnyObject(std::make_shared<mz::DynamicObject>()); }

// Refused registrations announce nothing and use no id; ids are never reused.
TEST(Session, RegisterLookupUnregisterAndRefusals) {
  mz::Session s;
  std::vector<std::string> events;
  s.serviceRegistered.connect([&](unsigned int id, const std::string& name) {
    // The directory is updated and unlocked: lookups and registrations work here.
    events.push_back("+" + std::to_string(id) + name + (s.service(name).hasValue() ? " found" : " missing"));
    if (name == "A") s.registerService("B", makeService());
  });
  s.serviceUnregistered.connect([&](unsigned int id, const std::string& name) {
    events.push_back("-" + std::to_string(id) + name + (s.service(name).hasError() ? " gone" : " still there"));
  });
  mz::AnyObject a = makeService();
  EXPECT_EQ(1u, s.registerService("A", a));
  EXPECT_TRUE(s.service("A").value() == a);
  EXPECT_EQ("Service already registered: A", errorOf([&] { s.registerService("A", makeService()); }));
  EXPECT_EQ("Cannot register service M: the object is null", errorOf([&] { s.registerService("M", mz::AnyObject()); }));
  EXPECT_THROW(s.registerService("", makeService()), std::runtime_error);
  EXPECT_TRUE(s.service("A").value() == a) << "the first registration stays";
  std::string listed;
  for (const auto& info : s.services()) listed += std::to_string(info.id) + info.name + " ";
  EXPECT_EQ("1A 2B ", listed);
  EXPECT_TRUE(s.unregisterService(1));
  EXPECT_FALSE(s.unregisterService(1) || s.unregisterService(42));
  EXPECT_EQ("Service not found: A", errorOf([&] { s.service("A").value(); }));
  EXPECT_EQ(3u, s.registerService("A", a)) << "a refused registration used an id, or an id was reused";
  EXPECT_EQ((std::vector<std::string>{"+1A found", "+2B found", "-1A gone", "+3A found"}), events);
}

TEST(Session, ConcurrentRegistrationsGetUniqueIdsAndAreAllAnnounced) {
  mz::Session s;
  testsupport::Collector<unsigned int> announced;
  s.serviceRegistered.connect([&](unsigned int id, const std::string&) { announced.add(id); });
  constexpr int kThreads = 4, kEach = 200;
  std::vector<std::thread> threads;
  std::vector<std::vector<unsigned int>> ids(kThreads);
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < kEach; ++i) {
        const std::string name = "svc" + std::to_string(t) + "_" + std::to_string(i);
        ids[t].push_back(s.registerService(name, makeService()));
        if (!s.service(name).hasValue()) ADD_FAILURE() << name << " not found right after registration";
        if (i % 2 && !s.unregisterService(ids[t].back())) ADD_FAILURE() << "could not unregister " << name;
      }
    });
  for (auto& th : threads) th.join();
  std::set<unsigned int> all;
  for (const auto& v : ids) all.insert(v.begin(), v.end());
  EXPECT_EQ(static_cast<std::size_t>(kThreads * kEach), all.size()) << "ids must be unique";
  const auto seen = announced.items();
  EXPECT_EQ(all, std::set<unsigned int>(seen.begin(), seen.end()));
  EXPECT_EQ(static_cast<std::size_t>(kThreads * kEach / 2), s.services().size());
}

}  // namespace
