#include "cli.h"

#include <httplib.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "brokerlink.h"
#include "clierror.h"
#include "glob.h"
#include "jsonvalue.h"
#include "mz/object.h"
#include "printer.h"
#include "rx/rxerror.h"
#include "rx/rxlog.h"
#include "rx/rxversion.h"
#include "suggest.h"
#include "watcher.h"

namespace rxcli {

namespace {

// Everything the command line can say; each command reads what it declared.
struct Request {
  // Global options.
  std::string url = "tcp://127.0.0.1:9780";
  std::string http = "http://127.0.0.1:9781";
  std::string module = "RXMemory";
  double timeoutSeconds = 3;
  bool json = false;
  // Arguments of the commands.
  std::vector<std::string> keys;
  std::string key;
  std::string value;
  bool hasValue = false;
  std::string text;
  std::string method;
  std::vector<std::string> args;
  unsigned int count = 0;
  bool changes = false;
  double intervalSeconds = 0.1;
  bool namesOnly = false;

  std::chrono::milliseconds timeout() const { return milliseconds(timeoutSeconds); }
  static std::chrono::milliseconds milliseconds(double seconds) {
    return std::chrono::milliseconds(static_cast<long long>(std::ceil(seconds * 1000)));
  }
};

// One command being run: the request, where results go, and the broker
// connection, opened on first use (`page` needs none).
class Run {
 public:
  Run(const Request& request, Printer& printer, std::ostream& err)
      : request(request), printer(printer), err(err) {}

  mz::AnyObject& module(BrokerLink::Loss loss = BrokerLink::Loss::kEnd) {
    if (!link_) {
      link_ = std::make_unique<BrokerLink>(request.url, request.timeout(), loss);
      module_ = link_->module(request.module);
    }
    return module_;
  }
  BrokerLink& link(BrokerLink::Loss loss = BrokerLink::Loss::kEnd) {
    module(loss);
    return *link_;
  }
  RX::RXValue call(const std::string& method, const mz::GenericFunctionParameters& params = {}) {
    return module().call(method, params).toRXValue();
  }

  const Request& request;
  Printer& printer;
  std::ostream& err;

 private:
  std::unique_ptr<BrokerLink> link_;
  mz::AnyObject module_;
};

// A value argument, or a usage error saying which one is wrong.
RX::RXValue parseValue(const std::string& text, const std::string& what,
                       JsonValue::Objects objects = JsonValue::Objects::Refuse) {
  try {
    return JsonValue::fromArgument(text, objects);
  } catch (const std::invalid_argument& e) {
    throw CliError(CliError::kUsage, "bad " + what + " '" + text + "': " + e.what());
  }
}

RX::RXValue sorted(RX::RXValue names) {
  std::vector<std::string> list = names.toStringList();
  std::sort(list.begin(), list.end());
  return RX::RXValue(list);
}

// ---- Commands ----

void get(Run& run) {
  // Read everything first: a missing key fails the command with no partial output.
  std::vector<RX::RXValue> values;
  for (const std::string& key : run.request.keys) values.push_back(run.call("getData", {mz::AnyValue(key)}));
  for (const RX::RXValue& v : values) run.printer.value(v);
}

void insert(Run& run) {
  const RX::RXValue value = parseValue(run.request.value, "VALUE");
  // The memory picks its int, float, string or RXValue overload from the kind.
  run.call("insertData", {mz::AnyValue(run.request.key), mz::AnyValue(value)});
}

void raiseWith(Run& run, const char* method) {
  const RX::RXValue value = run.request.hasValue ? parseValue(run.request.value, "VALUE") : RX::RXValue();
  run.call(method, {mz::AnyValue(run.request.key), mz::AnyValue(value)});
}

void remove(Run& run) { run.call("removeData", {mz::AnyValue(run.request.key)}); }

void list(Run& run) {
  const std::string& filter = run.request.text;
  // A plain word keeps its old meaning, a part of the names.
  if (!Glob::hasWildcards(filter)) {
    run.printer.names(sorted(run.call("getDataList", {mz::AnyValue(filter)})));
    return;
  }
  const Glob glob(filter);
  std::vector<std::string> kept;
  for (const std::string& name :
       run.call("getDataList", {mz::AnyValue(glob.longestLiteral())}).toStringList())
    if (glob.matches(name)) kept.push_back(name);
  std::sort(kept.begin(), kept.end());
  run.printer.names(RX::RXValue(kept));
}

void events(Run& run) { run.printer.names(run.call("getEventList")); }

void microEvents(Run& run) { run.printer.names(sorted(run.call("getMicroEventList"))); }

void type(Run& run) { run.printer.text(run.call("getType", {mz::AnyValue(run.request.key)}).toStdString()); }

void timestamp(Run& run) {
  run.printer.timestamped(run.call("getTimestamp", {mz::AnyValue(run.request.key)}));
}

void history(Run& run) { run.printer.history(run.call("getEventHistory", {mz::AnyValue(run.request.key)})); }

void describe(Run& run) {
  run.call("setDescription", {mz::AnyValue(run.request.key), mz::AnyValue(run.request.text)});
}

void descriptions(Run& run) {
  run.printer.descriptions(run.call("getDescriptionList", {mz::AnyValue(run.request.keys)}));
}

void subscribers(Run& run) { run.printer.names(run.call("getSubscribers", {mz::AnyValue(run.request.key)})); }

void watch(Run& run) {
  Watcher::Options options;
  options.names = run.request.keys;
  options.count = run.request.count;
  options.timeout = run.request.timeout();
  options.changes = run.request.changes;
  options.interval = Request::milliseconds(run.request.intervalSeconds);
  BrokerLink& link = run.link(BrokerLink::Loss::kReconnect);
  Watcher watcher(link.session(), run.module(), run.printer, run.err);
  watcher.run(options);
}

// Every published method name, once each, sorted.
std::vector<std::string> methodNames(const mz::MetaObject& meta) {
  std::vector<std::string> names;
  for (const mz::MetaMethod& m : meta.methods) names.push_back(m.name);
  std::sort(names.begin(), names.end());
  names.erase(std::unique(names.begin(), names.end()), names.end());
  return names;
}

void methods(Run& run) {
  const mz::MetaObject& meta = run.module().metaObject();
  const std::string& name = run.request.method;
  if (!name.empty() && meta.findMethod(name).empty())
    throw CliError(CliError::kFailure, run.request.module + " has no method named " + name,
                   didYouMean(nearestNames(name, methodNames(meta))));
  if (run.request.namesOnly) {
    run.printer.names(RX::RXValue(methodNames(meta)));
    return;
  }
  run.printer.catalogue(run.request.module, meta, name);
}

// Refuses a call the module would refuse, saying what there is instead:
// the nearest names for a name it lacks, the overloads for arguments none takes.
void checkCallable(const Run& run, const mz::MetaObject& meta, const mz::GenericFunctionParameters& params) {
  const std::string& name = run.request.method;
  const std::vector<mz::MetaMethod> overloads = meta.findMethod(name);
  if (overloads.empty())
    throw CliError(CliError::kFailure, run.request.module + ": no method named " + name,
                   didYouMean(nearestNames(name, methodNames(meta))));
  if (meta.resolve(name, params) >= 0) return;
  std::string listed = name + (overloads.size() == 1 ? " takes:" : " has these overloads:");
  for (const mz::MetaMethod& m : overloads) listed += "\n  " + m.signature();
  throw CliError(
      CliError::kFailure,
      run.request.module + ": no method " + name + " accepting " + mz::MetaObject::describeArguments(params),
      listed);
}

void call(Run& run) {
  mz::GenericFunctionParameters params;
  for (std::size_t i = 0; i < run.request.args.size(); ++i)
    params.emplace_back(
        parseValue(run.request.args[i], "ARG " + std::to_string(i + 1), JsonValue::Objects::AsStringMap));
  mz::AnyObject& module = run.module();
  checkCallable(run, module.metaObject(), params);
  const mz::AnyValue result = module.call(run.request.method, params);
  // The catalogue says what came back: nothing, a list of names, or a value.
  const int uid = module.metaObject().resolve(run.request.method, params);
  const mz::ParamType returned =
      uid >= 0 ? module.metaObject().methods.at(static_cast<std::size_t>(uid)).returnType
               : mz::ParamType::Value;
  if (returned == mz::ParamType::Void && !run.printer.json()) return;
  if (returned == mz::ParamType::StringList && result.toRXValue().isArray())
    run.printer.names(result.toRXValue());
  else
    run.printer.value(result.toRXValue());
}

std::string httpFailure(httplib::Error error, std::chrono::milliseconds timeout) {
  switch (error) {
    case httplib::Error::Connection:
      return "connection refused";
    case httplib::Error::ConnectionTimeout:
    case httplib::Error::Read:
      return "no answer within " + std::to_string(timeout.count()) + " ms";
    default:
      return httplib::to_string(error);
  }
}

void page(Run& run) {
  const std::string& base = run.request.http;
  // Plain HTTP on the loopback is all a broker serves: no https, no path.
  static const std::regex kBase(R"(http://(\[[0-9A-Fa-f:.]+\]|[A-Za-z0-9.-]+)(:[0-9]{1,5})?/?)");
  if (!std::regex_match(base, kBase))
    throw CliError(CliError::kUsage, "bad --http '" + base + "': expected http://HOST:PORT");
  httplib::Client client(base);
  const auto timeout = run.request.timeout();
  const auto seconds = static_cast<time_t>(timeout.count() / 1000);
  const auto micros = static_cast<time_t>((timeout.count() % 1000) * 1000);
  client.set_connection_timeout(seconds, micros);
  client.set_read_timeout(seconds, micros);
  client.set_write_timeout(seconds, micros);
  const std::string path = "/" + run.request.module;
  httplib::Result res = client.Get(path);
  if (!res)
    throw CliError(CliError::kNoBroker,
                   "cannot reach the status pages at " + base + ": " + httpFailure(res.error(), timeout),
                   BrokerLink::kStartHint);
  if (res->status != 200) {
    // The server says why in the first line of its answer.
    const std::string why = res->body.substr(0, res->body.find('\n'));
    throw CliError(CliError::kFailure, "GET " + base + path + " answered " + std::to_string(res->status) +
                                           (why.empty() ? "" : ": " + why));
  }
  run.printer.text(res->body);
}

// ---- The command table ----

// CLI11 splits a word like [1,2] given to a list of positionals into "1" and
// "2". Such words cross the parser behind a marker, which is removed after.
constexpr char kWhole = '\x1F';

std::string unmarked(std::string text) {
  text.erase(std::remove(text.begin(), text.end(), kWhole), text.end());
  return text;
}

void unmark(Request& r) {
  for (std::string* s : {&r.url, &r.http, &r.module, &r.key, &r.value, &r.text, &r.method}) *s = unmarked(*s);
  for (std::vector<std::string>* list : {&r.keys, &r.args})
    for (std::string& s : *list) s = unmarked(s);
}

struct Command {
  const char* name;
  const char* description;
  const char* example;
  std::function<void(CLI::App&, Request&)> declare;
  std::function<void(Run&)> action;
};

std::vector<Command> commands() {
  return {
      {"get", "Print the value of each KEY, one line per key", "rxmemory get Robot/Battery Robot/Mode",
       [](CLI::App& c, Request& r) { c.add_option("KEY", r.keys, "Keys to read")->required(); }, get},
      {"insert", "Store VALUE under KEY (notifies nobody)",
       "rxmemory insert Robot/Battery 87   (also 0.5, '\"text\"', word, true, '[1, \"a\"]', null, "
       "'{\"$binary\": \"AAE=\"}')",
       [](CLI::App& c, Request& r) {
         c.add_option("KEY", r.key, "Key to write")->required();
         c.add_option("VALUE", r.value, "The value, as JSON or a bare word (see --help of rxmemory)")
             ->required();
       },
       insert},
      {"raise",
       "Raise EVENT with VALUE (invalid when omitted): stored, kept in its history, sent to subscribers",
       "rxmemory raise Robot/Bumped '[\"left\", 2]'",
       [](CLI::App& c, Request& r) {
         c.add_option("EVENT", r.key, "Event to raise")->required();
         c.add_option("VALUE", r.value, "The value, as JSON or a bare word");
       },
       [](Run& run) { raiseWith(run, "raiseEvent"); }},
      {"raise-micro", "Raise the micro-event EVENT with VALUE: stored and sent to subscribers, no history",
       "rxmemory raise-micro Sonar/Near 0.42",
       [](CLI::App& c, Request& r) {
         c.add_option("EVENT", r.key, "Micro-event to raise")->required();
         c.add_option("VALUE", r.value, "The value, as JSON or a bare word");
       },
       [](Run& run) { raiseWith(run, "raiseMicroEvent"); }},
      {"remove", "Remove KEY from the memory", "rxmemory remove Robot/Battery",
       [](CLI::App& c, Request& r) { c.add_option("KEY", r.key, "Key to remove")->required(); }, remove},
      {"list", "List the keys matching PATTERN (all keys without one), sorted",
       "rxmemory list 'Robot/*'\n"
       "* stands for any run of characters, ? for any one; a word without them lists the names containing "
       "it.",
       [](CLI::App& c, Request& r) {
         c.add_option("PATTERN", r.text, "A glob with * and ?, or a part of the names (case-sensitive)");
       },
       list},
      {"events", "List the declared events", "rxmemory events", [](CLI::App&, Request&) {}, events},
      {"micro-events", "List the micro-events, sorted", "rxmemory micro-events", [](CLI::App&, Request&) {},
       microEvents},
      {"type", "Print the storage class of KEY: Data, Event, MicroEvent, ...", "rxmemory type Robot/Bumped",
       [](CLI::App& c, Request& r) { c.add_option("KEY", r.key, "Key to look at")->required(); }, type},
      {"timestamp", "Print the local time of the last write of KEY and its value",
       "rxmemory timestamp Robot/Battery",
       [](CLI::App& c, Request& r) { c.add_option("KEY", r.key, "Key to look at")->required(); }, timestamp},
      {"history", "Print the last 50 raises of EVENT with their times, oldest first",
       "rxmemory history Robot/Bumped",
       [](CLI::App& c, Request& r) { c.add_option("EVENT", r.key, "Event to look at")->required(); },
       history},
      {"describe", "Attach the free text TEXT to KEY",
       "rxmemory describe Robot/Battery 'charge left, in percent'",
       [](CLI::App& c, Request& r) {
         c.add_option("KEY", r.key, "Key to describe")->required();
         c.add_option("TEXT", r.text, "The description (plain text)")->required();
       },
       describe},
      {"descriptions", "Print the name, kind and description of each KEY (of every key without one)",
       "rxmemory descriptions Robot/Battery",
       [](CLI::App& c, Request& r) { c.add_option("KEY", r.keys, "Keys to look at"); }, descriptions},
      {"subscribers", "List the modules subscribed to KEY", "rxmemory subscribers Robot/Bumped",
       [](CLI::App& c, Request& r) { c.add_option("KEY", r.key, "Event or micro-event")->required(); },
       subscribers},
      {"watch", "Print every raise of each KEY or PATTERN (time, key, value) until Ctrl-C or --count N lines",
       "rxmemory watch 'Robot/*' Sonar/Near --changes --count 10\n"
       "\"watching KEY...\" on stderr says it is ready. A PATTERN (* and ?) follows the keys it\n"
       "matches, also those added later (printed once marked (new)), and creates none; a plain\n"
       "KEY missing from the memory is declared as an event. A broker that goes away is waited\n"
       "for, and followed again when it is back.",
       [](CLI::App& c, Request& r) {
         c.add_option("KEY", r.keys, "Keys or patterns to follow")->required();
         c.add_option("-n,--count", r.count, "Stop after N lines in total (0: never)");
         c.add_flag("--changes", r.changes, "Also print plain writes, marked (write), found by polling");
         c.add_option("--interval", r.intervalSeconds, "Seconds between two looks for writes, with --changes")
             ->check(CLI::Range(0.01, 3600.0))
             ->option_text("SECONDS (default 0.1, at least 0.01)");
       },
       watch},
      {"methods", "Print the published methods of --module with their texts (those named NAME only)",
       "rxmemory methods getData;  rxmemory methods --names",
       [](CLI::App& c, Request& r) {
         c.add_option("NAME", r.method, "Method name");
         c.add_flag("--names", r.namesOnly, "Print the method names only, one per line");
       },
       methods},
      {"page", "Print the HTML status page of --module, fetched from --http", "rxmemory page > memory.html",
       [](CLI::App&, Request&) {}, page},
      {"call", "Call any published METHOD of --module with JSON ARGs and print the result",
       "rxmemory call insertData Robot/Speed 0.5;  rxmemory call addMapping Sonar '{\"near\": "
       "\"Sonar/Near\"}'",
       [](CLI::App& c, Request& r) {
         c.add_option("METHOD", r.method, "Published method name (overloads are told apart by the ARGs)")
             ->required();
         c.add_option(
             "ARG", r.args,
             "Arguments as JSON or bare words; a JSON object of strings is a map from string to string");
       },
       call},
  };
}

const char* const kValueSyntax =
    "VALUES are JSON: 5 int, 5.5 float, '\"5\"' or a bare word string, true/false bool,\n"
    "'[1, \"a\"]' array, null invalid, '{\"$binary\": \"<base64>\"}' binary. Text that is not\n"
    "JSON is taken as a string. --json prints results in the same forms, objects as {\"$object\": true}.\n"
    "Exit status: 0 done, 1 the command failed, 2 bad usage, 3 no broker at the address.\n"
    "RXMEMORY_URL and RXMEMORY_HTTP, when set, replace the defaults of --url and --http.\n"
    "Examples:\n"
    "  rxmemory insert Robot/Battery 87\n"
    "  rxmemory get Robot/Battery --json\n"
    "  rxmemory watch Robot/Bumped --count 1\n"
    "  rxmemory methods getData\n"
    "More in docs/CLI.md.";

// The help of the command being run, else of the whole program; usage
// lines read "rxmemory COMMAND ...".
std::string helpOf(const CLI::App& app) {
  const auto selected = app.get_subcommands();
  return selected.empty() ? app.help() : selected.front()->help(app.get_name());
}

// How to get that help.
std::string helpLine(const CLI::App& app) {
  const auto selected = app.get_subcommands();
  return "see `rxmemory " + (selected.empty() ? std::string() : selected.front()->get_name() + " ") +
         "--help`";
}

// The long option names known where `app` stands: its own and its command's.
std::vector<std::string> optionNames(const CLI::App& app) {
  std::vector<std::string> names;
  std::vector<const CLI::App*> scopes = {&app};
  for (const CLI::App* sub : app.get_subcommands()) scopes.push_back(sub);
  for (const CLI::App* scope : scopes)
    for (const CLI::Option* option : scope->get_options())
      for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
  return names;
}

// The nearest names to a word the parser refused: a command (the first word
// that is not an option) or an option.
std::string suggestionFor(const CLI::App& app, const std::string& word) {
  if (word.rfind("--", 0) == 0) return didYouMean(nearestNames(word, optionNames(app)));
  std::vector<std::string> commands;
  for (const CLI::App* sub : app.get_subcommands({})) commands.push_back(sub->get_name());
  return didYouMean(nearestNames(word, commands));
}

// Where the value of an option came from, for an error about it: the
// environment when the command line does not name it.
std::string origin(const std::vector<std::string>& words, const std::string& option, const char* variable) {
  for (const std::string& w : words)
    if (w == option || w.rfind(option + "=", 0) == 0) return std::string();
  return std::getenv(variable) != nullptr ? std::string(" (from ") + variable + ")" : std::string();
}

// CLI11's own range check prints its bounds as 300-digit numbers.
const CLI::Validator kPositiveSeconds(
    [](std::string& text) {
      double seconds = 0;
      return CLI::detail::lexical_cast(text, seconds) && seconds > 0
                 ? std::string()
                 : "expected a number of seconds above 0, got " + text;
    },
    "SECONDS");

const char* const kGlobalOptions =
    "Options of rxmemory (--url, --timeout, --json, --module, --http) go before or after the command: "
    "see rxmemory --help.";

}  // namespace

Cli::Cli(std::ostream& out, std::ostream& err) : out_(out), err_(err) {}

int Cli::run(int argc, const char* const* argv) {
  Request request;
  CLI::App app{"rxmemory: read, write, raise, watch and introspect the memory of a running rxbroker."};
  app.name("rxmemory");
  app.footer(kValueSyntax);
  app.require_subcommand(1);
  app.set_version_flag("--version", std::string("rxmemory " RX_VERSION " (git revision " RX_GIT_REVISION ")"),
                       "Print the version and the git revision it was built from, and exit");
  // Global options are accepted after the command too (rxmemory get K --json).
  app.fallthrough();
  app.add_option("--url", request.url, "Broker endpoint, tcp://HOST:PORT or unix:///path")
      ->capture_default_str()
      ->envname("RXMEMORY_URL");
  app.add_option("--timeout", request.timeoutSeconds, "Seconds allowed for connecting and for each reply")
      ->capture_default_str()
      ->check(kPositiveSeconds);
  app.add_flag("--json", request.json, "Print results as JSON, one document per line");
  app.add_option("--module", request.module, "Module for methods, page and call")->capture_default_str();
  app.add_option("--http", request.http, "Base URL of the broker's status pages, for page")
      ->capture_default_str()
      ->envname("RXMEMORY_HTTP");

  std::map<const CLI::App*, std::function<void(Run&)>> actions;
  for (const Command& command : commands()) {
    CLI::App* sub = app.add_subcommand(command.name, command.description);
    sub->footer(std::string("Example: ") + command.example + "\n" + kGlobalOptions);
    command.declare(*sub, request);
    actions[sub] = command.action;
  }

  std::vector<std::string> words(argv, argv + argc);
  std::vector<const char*> marked;
  for (std::string& w : words) {
    if (w.size() >= 2 && w.front() == '[' && w.back() == ']') w.insert(w.begin(), kWhole);
    marked.push_back(w.c_str());
  }
  try {
    app.parse(static_cast<int>(marked.size()), marked.data());
  } catch (const CLI::CallForHelp&) {
    out_ << helpOf(app) << "\n";
    return 0;
  } catch (const CLI::CallForVersion& e) {
    out_ << e.what() << "\n";
    return 0;
  } catch (const CLI::CallForAllHelp&) {
    out_ << app.help("", CLI::AppFormatMode::All);
    return 0;
  } catch (const CLI::ParseError& e) {
    // CLI11 words a mistyped command as a missing one.
    std::vector<std::string> rest = app.remaining();
    for (const CLI::App* sub : app.get_subcommands())
      for (const std::string& word : sub->remaining()) rest.push_back(word);
    const bool unknownCommand = app.get_subcommands().empty() && !rest.empty() && rest.front()[0] != '-';
    std::string hint;
    if (!rest.empty()) hint = suggestionFor(app, rest.front());
    err_ << "error: " << unmarked(unknownCommand ? "unknown command '" + rest.front() + "'" : e.what())
         << "\n";
    if (!hint.empty()) err_ << hint << "\n";
    err_ << helpLine(app) << "\n";
    return CliError::kUsage;
  }
  unmark(request);
  for (const CLI::App* sub : app.get_subcommands())
    if (sub->get_name() == "raise" || sub->get_name() == "raise-micro")
      request.hasValue = sub->count("VALUE") > 0;

  // The framework's own log lines would mix with the results; RX_LOG still
  // turns them on.
  if (std::getenv("RX_LOG") == nullptr) RX::log::setLevel("*", RX::log::Error);

  Printer printer(out_, request.json);
  Run run(request, printer, err_);
  try {
    try {
      actions.at(app.get_subcommands().front())(run);
    } catch (const CliError&) {
      throw;
    } catch (const RX::RXError& e) {
      // The module, method and message; the source position is the module's business.
      throw CliError(CliError::kFailure, e.module() + "::" + e.method() + ": " + e.message());
    } catch (const std::exception& e) {
      throw CliError(CliError::kFailure, e.what());
    } catch (...) {
      throw CliError(CliError::kFailure, "failed with an exception that is not a std::exception");
    }
  } catch (const CliError& e) {
    out_.flush();
    std::string message = e.what();
    // A bad address typed once in the environment is not on the command line.
    if (message.rfind("bad --url", 0) == 0) message.insert(9, origin(words, "--url", "RXMEMORY_URL"));
    if (message.rfind("bad --http", 0) == 0) message.insert(10, origin(words, "--http", "RXMEMORY_HTTP"));
    err_ << "error: " << message << "\n";
    if (!e.hint().empty()) err_ << e.hint() << "\n";
    if (e.status() == CliError::kUsage) err_ << helpLine(app) << "\n";
    return e.status();
  }
  out_.flush();
  return 0;
}

}  // namespace rxcli
