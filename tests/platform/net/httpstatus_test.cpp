// The broker's HTTP status pages: routes, headers, the catalogue as JSON.
#include <httplib.h>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "net/httpstatusserver.h"
#include "rx/rxbroker.h"
#include "rx/rxmodule.h"

namespace {

// A module whose page holds markup that must never run in a browser.
class PageModule : public RX::RXModule {
 public:
  PageModule(boost::shared_ptr<RX::RXBroker> broker, const std::string& name) : RXModule(broker, name) {
    setModuleDescription("Serves a page with <b>markup</b>");
    functionName("echo", "PageModule", "Returns its argument", 0);
    addParam("text", "What to return");
    setReturn("same", "The same text");
    advertiseMethod(getCurrentMethodDescription(), this, &PageModule::echo);
    functionName("rawAddress", "PageModule", "An address", 4);
    advertiseMethod(getCurrentMethodDescription(), this, &PageModule::rawAddress);
  }
  std::string echo(const std::string& text) { return text; }
  void* rawAddress() { return this; }
  std::string httpGet() override { return "<html><body><script>alert(1)</script>value</body></html>"; }
};

class HttpStatusTest : public ::testing::Test {
 protected:
  void SetUp() override {
    broker_ = RX::RXBroker::create("testbroker");
    module_ = boost::make_shared<PageModule>(broker_, "Pages");
    module_->initModule();
    server_ = std::make_unique<net::HttpStatusServer>(broker_, "127.0.0.1", 0);
    server_->start();
    client_ = std::make_unique<httplib::Client>("127.0.0.1", server_->port());
    client_->set_connection_timeout(5);
    client_->set_read_timeout(5);
  }
  void TearDown() override {
    server_->stop();
    broker_->shutdown();
  }

  boost::shared_ptr<RX::RXBroker> broker_;
  boost::shared_ptr<PageModule> module_;
  std::unique_ptr<net::HttpStatusServer> server_;
  std::unique_ptr<httplib::Client> client_;
};

TEST_F(HttpStatusTest, ModulePageIsServedAsIsUnderAPolicyThatForbidsScripts) {
  auto res = client_->Get("/Pages");
  ASSERT_TRUE(res) << "no answer from " << server_->url();
  EXPECT_EQ(200, res->status);
  EXPECT_EQ("<html><body><script>alert(1)</script>value</body></html>", res->body);
  EXPECT_EQ("text/html; charset=utf-8", res->get_header_value("Content-Type"));
  const std::string policy = res->get_header_value("Content-Security-Policy");
  EXPECT_NE(std::string::npos, policy.find("script-src 'none'")) << policy;
  EXPECT_NE(std::string::npos, policy.find("default-src 'none'")) << policy;
}

TEST_F(HttpStatusTest, UnknownModuleIs404WithAShortText) {
  auto res = client_->Get("/Nobody");
  ASSERT_TRUE(res);
  EXPECT_EQ(404, res->status);
  EXPECT_EQ("No module named Nobody on this broker\n", res->body);
  auto json = client_->Get("/Nobody/methods.json");
  ASSERT_TRUE(json);
  EXPECT_EQ(404, json->status);
}

TEST_F(HttpStatusTest, IndexListsModulesEscapedWithLinksAndDropCounters) {
  auto res = client_->Get("/");
  ASSERT_TRUE(res);
  EXPECT_EQ(200, res->status);
  EXPECT_NE(std::string::npos, res->body.find("<a href=\"/Pages\">Pages</a>")) << res->body;
  EXPECT_NE(std::string::npos, res->body.find("Serves a page with &lt;b&gt;markup&lt;/b&gt;")) << res->body;
  EXPECT_NE(std::string::npos, res->body.find("<a href=\"/Pages/methods.json\">2 methods</a>")) << res->body;
  EXPECT_NE(std::string::npos, res->body.find("Dropped notifications")) << res->body;
  EXPECT_NE(std::string::npos, res->body.find("<tr><td>Pages</td><td>0</td></tr>")) << res->body;
  EXPECT_FALSE(res->get_header_value("Content-Security-Policy").empty());
}

TEST_F(HttpStatusTest, MethodsJsonIsTheCatalogueWithTextsAndMasks) {
  auto res = client_->Get("/Pages/methods.json");
  ASSERT_TRUE(res);
  EXPECT_EQ(200, res->status);
  EXPECT_EQ("application/json", res->get_header_value("Content-Type"));
  nlohmann::json doc = nlohmann::json::parse(res->body);
  EXPECT_EQ("Pages", doc["module"]);
  ASSERT_EQ(2u, doc["methods"].size());
  const auto& echo = doc["methods"][0];
  EXPECT_EQ("echo", echo["name"]);
  EXPECT_EQ("PageModule", echo["className"]);
  EXPECT_EQ("Returns its argument", echo["description"]);
  EXPECT_EQ(0, echo["mask"]);
  ASSERT_EQ(1u, echo["parameters"].size());
  EXPECT_EQ("text", echo["parameters"][0]["name"]);
  EXPECT_EQ("What to return", echo["parameters"][0]["description"]);
  EXPECT_EQ("string", echo["parameters"][0]["type"]);
  EXPECT_EQ("same", echo["return"]["name"]);
  EXPECT_EQ("The same text", echo["return"]["description"]);
  const auto& raw = doc["methods"][1];
  EXPECT_EQ(4, raw["mask"]);
  EXPECT_TRUE(raw["return"].is_null());
}

TEST(HttpStatusServerTest, PortInUseIsAClearError) {
  auto broker = RX::RXBroker::create("b");
  net::HttpStatusServer first(broker, "127.0.0.1", 0);
  first.start();
  net::HttpStatusServer second(broker, "127.0.0.1", first.port());
  try {
    second.start();
    FAIL() << "a second server bound the same port";
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(0u, std::string(e.what()).find("cannot serve HTTP on 127.0.0.1:" + std::to_string(first.port()) + ": "))
        << e.what();
  }
  first.stop();
  broker->shutdown();
}

}  // namespace
