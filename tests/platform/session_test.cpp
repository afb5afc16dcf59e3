// The service directory: registration, lookup, removal, the announcements
// that go with them, and registrations from several threads.
#include "mz/session.h"

#include <gtest/gtest.h>

#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

mz::AnyObject makeService() { return mz::AnyObject(std::make_shared<mz::DynamicObject>()); }

std::string errorOf(const std::function<void()>& f) {
  try {
    f();
  } catch (const std::exception& e) {
    return e.what();
  }
  return "(no exception)";
}

TEST(Session, RegisterLookupUnregister) {
  mz::Session s;
  mz::AnyObject battery = makeService(), audio = makeService();
  EXPECT_EQ(1u, s.registerService("Battery", battery));
  EXPECT_EQ(2u, s.registerService("Audio", audio));

  mz::Future<mz::AnyObject> f = s.service("Battery");
  ASSERT_TRUE(f.isFinished());
  EXPECT_TRUE(f.value() == battery);
  EXPECT_TRUE(s.service("Audio").value() == audio);
  auto list = s.services();
  ASSERT_EQ(2u, list.size());
  EXPECT_EQ(1u, list[0].id);
  EXPECT_EQ("Battery", list[0].name);
  EXPECT_EQ(2u, list[1].id);
  EXPECT_EQ("Audio", list[1].name);

  EXPECT_TRUE(s.unregisterService(1));
  EXPECT_FALSE(s.unregisterService(1));
  EXPECT_FALSE(s.unregisterService(42));
  mz::Future<mz::AnyObject> gone = s.service("Battery");
  ASSERT_TRUE(gone.isFinished());
  EXPECT_TRUE(gone.hasError());
  EXPECT_EQ("Service not found: Battery", gone.error());
  EXPECT_EQ("Service not found: Battery", errorOf([&] { gone.value(); }));
  EXPECT_EQ("Service not found: ", s.service("").error());

  // Ids are never reused, and a freed name can be taken again.
  EXPECT_EQ(3u, s.registerService("Battery", battery));
  EXPECT_TRUE(s.service("Battery").value() == battery);
}

TEST(Session, RefusesDuplicateNamesAndNullObjects) {
  mz::Session s;
  int announced = 0;
  s.serviceRegistered.connect([&](unsigned int, const std::string&) { ++announced; });
  mz::AnyObject first = makeService();
  unsigned int id = s.registerService("Battery", first);
  EXPECT_EQ("Service already registered: Battery", errorOf([&] { s.registerService("Battery", makeService()); }));
  EXPECT_THROW(s.registerService("Battery", makeService()), std::runtime_error);
  EXPECT_EQ("Cannot register service Motion: the object is null",
            errorOf([&] { s.registerService("Motion", mz::AnyObject()); }));
  EXPECT_THROW(s.registerService("", makeService()), std::runtime_error);
  EXPECT_EQ(1, announced) << "refused registrations announce nothing";
  EXPECT_TRUE(s.service("Battery").value() == first) << "the first registration stays";
  EXPECT_EQ(1u, s.services().size());
  EXPECT_TRUE(s.service("Motion").hasError());
  // A refused registration consumes no id.
  EXPECT_EQ(id + 1, s.registerService("Motion", makeService()));
}

TEST(Session, AnnouncesWithIdAndNameAfterUpdating) {
  mz::Session s;
  std::vector<std::string> events;
  s.serviceRegistered.connect([&](unsigned int id, const std::string& name) {
    // The directory is already updated and unlocked: the service can be
    // looked up (and others registered) from here.
    mz::Future<mz::AnyObject> f = s.service(name);
    events.push_back("+" + std::to_string(id) + " " + name + (f.hasValue() ? " found" : " missing"));
    if (name == "A") s.registerService("B", makeService());
  });
  s.serviceUnregistered.connect([&](unsigned int id, const std::string& name) {
    events.push_back("-" + std::to_string(id) + " " + name + (s.service(name).hasError() ? " gone" : " still there"));
  });
  mz::AnyObject a = makeService();
  unsigned int idA = s.registerService("A", a);
  EXPECT_EQ(1u, idA);
  s.unregisterService(idA);
  s.unregisterService(2);
  EXPECT_EQ((std::vector<std::string>{"+1 A found", "+2 B found", "-1 A gone", "-2 B gone"}), events);
}

TEST(Session, ConcurrentRegistrations) {
  mz::Session s;
  std::mutex m;
  std::set<unsigned int> announced;
  s.serviceRegistered.connect([&](unsigned int id, const std::string&) {
    std::lock_guard<std::mutex> l(m);
    announced.insert(id);
  });
  constexpr int kThreads = 4, kEach = 200;
  std::vector<std::thread> threads;
  std::vector<std::vector<unsigned int>> ids(kThreads);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kEach; ++i) {
        const std::string name = "svc" + std::to_string(t) + "_" + std::to_string(i);
        unsigned int id = s.registerService(name, makeService());
        ids[static_cast<std::size_t>(t)].push_back(id);
        if (!s.service(name).hasValue()) ADD_FAILURE() << name << " not found right after registration";
        if (i % 2 && !s.unregisterService(id)) ADD_FAILURE() << "could not unregister " << name;
      }
    });
  }
  for (auto& th : threads) th.join();
  std::set<unsigned int> all;
  for (const auto& v : ids) all.insert(v.begin(), v.end());
  EXPECT_EQ(static_cast<std::size_t>(kThreads * kEach), all.size()) << "ids must be unique";
  EXPECT_EQ(all, announced);
  EXPECT_EQ(static_cast<std::size_t>(kThreads * kEach / 2), s.services().size());
}

}  // namespace
