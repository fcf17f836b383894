// zorvel-bench: what the library costs an application over plain GDBus.
//
// One run starts a private bus and the lean benchmark daemon on it, runs a
// GLib main loop on the default main context (the library needs one; the
// plain GDBus side gets its signals through the same loop), and measures each
// figure for the library (a Launcher) and for the floor (a GDBus proxy and a
// signal subscription on a connection of its own to the same bus) in the
// same run, alternating sample by sample. The machines are shared and noisy,
// so the figures that count are ratios library/floor, not absolute times.
//
// Echoes from the daemon go to the calling connection only, so neither side
// runs the other side's signal handlers. Timestamps are CLOCK_MONOTONIC,
// which the daemon and this process share.
//
// Output: a readable table, then (last line) one JSON object with the figures.
// Samples and the latency plot go to --out (default: ./bench-results).

#include <getopt.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gio/gio.h>

#include <common/GLibPtr.h>
#include <common/GLibUtils.h>
#include <dbus/client/DBusClientAsync.h>
#include <dbus/client/ServiceContract.h>
#include <platform/Journal.h>
#include <platform/SystemLog.h>
#include <zorvel/Launcher.h>
#include <zorvel/LauncherTesting.h>

#include "support/PrivateJournal.h"

namespace {

using zv_client::common::GErrorPtr;
using zv_client::common::GObjectPtr;
using zv_client::common::GVariantPtr;
using zv_client::dbus::client::DBusClientAsync;
namespace contract = zv_client::dbus::client;
namespace platform = zv_client::platform;

using Ns = std::uint64_t;

Ns NowNs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<Ns>(now.tv_sec) * 1000000000ULL + static_cast<Ns>(now.tv_nsec);
}

[[noreturn]] void Fatal(const std::string& message) {
  std::fprintf(stderr, "zorvel-bench: %s\n", message.c_str());
  std::fflush(stderr);
  std::_Exit(1);
}

void SleepMs(double ms) { std::this_thread::sleep_for(std::chrono::microseconds(static_cast<long>(ms * 1000))); }

// ---------------------------------------------------------------------------
// Options

struct Options {
  std::string outDir = "bench-results";
  std::string dbusDaemon = ZORVEL_BENCH_DBUS_DAEMON;
  std::string busConfig = ZORVEL_BENCH_BUS_CONFIG;
  std::string benchDaemon = ZORVEL_BENCH_DAEMON;
  std::string plotScript = ZORVEL_BENCH_PLOT_SCRIPT;
  int callSamples = 2000;     // per side
  int signalSamples = 2000;   // per side
  int profileRuns = 25;       // per side
  int profileCount = 1000;    // asked for; see kMaxProfilesOnTheBus
  int burstRuns = 3;
  int burstSize = 1000;
  int recoveryRounds = 12;
  int logLines = 20000;
  bool silentPass = true;     // a third arm: the library with its log silenced
  double liveLogLine = -1;    // measured at start-up (MeasureLiveJournalLine); -1: not measured
  std::vector<std::string> phases{"call", "signal", "profiles", "burst", "recovery", "log"};
};

bool HasPhase(const Options& options, const char* phase) {
  return std::find(options.phases.begin(), options.phases.end(), phase) != options.phases.end();
}

// The profile list payload is one struct of 1 + 2N "(s)" elements, and a
// D-Bus signature may not exceed 255 characters: "((s)...(s))" of 1 + 2N
// elements has 3 (1 + 2N) + 2 of them, so N <= 41. A daemon that answers with
// more is disconnected by the bus for sending an invalid message, so no
// client, with the library or without, can read more profiles in one call.
constexpr int kMaxProfilesOnTheBus = 41;

// ---------------------------------------------------------------------------
// Statistics

struct Stats {
  std::size_t n = 0;
  double median = 0, p99 = 0, mean = 0, min = 0, max = 0;
};

// Nearest-rank percentile on a sorted copy.
double Percentile(const std::vector<double>& sorted, double p) {
  if (sorted.empty()) return 0;
  std::size_t rank = static_cast<std::size_t>(p / 100.0 * static_cast<double>(sorted.size()) + 0.999999);
  rank = std::min(std::max<std::size_t>(rank, 1), sorted.size());
  return sorted[rank - 1];
}

Stats Summarise(std::vector<double> values) {
  Stats stats;
  if (values.empty()) return stats;
  std::sort(values.begin(), values.end());
  stats.n = values.size();
  stats.median = Percentile(values, 50);
  stats.p99 = Percentile(values, 99);
  stats.min = values.front();
  stats.max = values.back();
  double sum = 0;
  for (double v : values) sum += v;
  stats.mean = sum / static_cast<double>(values.size());
  return stats;
}

double Ratio(double a, double b) { return b > 0 ? a / b : 0; }

// ---------------------------------------------------------------------------
// Processes: the private bus and the daemon

// Starts `argv` with its stderr in `errFd` (when not -1) and `keepFd` left open.
pid_t Spawn(const std::vector<std::string>& argv, int errFd, int keepFd = -1) {
  std::vector<char*> args;
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // never outlive the benchmark
    if (getppid() != parent) _exit(127);
    if (keepFd >= 0) fcntl(keepFd, F_SETFD, 0);
    if (errFd >= 0) dup2(errFd, 2);
    execv(args[0], args.data());
    _exit(127);
  }
  if (pid < 0) Fatal("fork failed");
  return pid;
}

std::string ReadLine(int fd, int timeoutMs) {
  std::string line;
  const Ns deadline = NowNs() + static_cast<Ns>(timeoutMs) * 1000000ULL;
  while (NowNs() < deadline) {
    pollfd entry{fd, POLLIN, 0};
    if (poll(&entry, 1, 100) <= 0) continue;
    char c = 0;
    if (read(fd, &c, 1) != 1) break;
    if (c == '\n') return line;
    line += c;
  }
  return {};
}

void Stop(pid_t pid) {
  if (pid <= 0) return;
  kill(pid, SIGTERM);
  int status = 0;
  waitpid(pid, &status, 0);
}

GDBusConnection* OpenConnection(const std::string& address) {
  GError* raw = nullptr;
  GDBusConnection* connection = g_dbus_connection_new_for_address_sync(
      address.c_str(),
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, &raw);
  GErrorPtr error(raw);
  if (connection == nullptr) Fatal(std::string("cannot connect to the bus: ") + error->message);
  g_dbus_connection_set_exit_on_close(connection, FALSE);
  return connection;
}

// A synchronous call on `connection`; Fatal when it fails.
GVariantPtr CallSync(GDBusConnection* connection, const char* destination, const char* path, const char* interface,
                     const char* method, GVariant* parameters) {
  GError* raw = nullptr;
  GVariant* reply = g_dbus_connection_call_sync(connection, destination, path, interface, method, parameters,
                                                nullptr, G_DBUS_CALL_FLAGS_NONE, 10000, nullptr, &raw);
  GErrorPtr error(raw);
  if (reply == nullptr) Fatal(std::string(method) + " failed: " + (error ? error->message : "?"));
  return GVariantPtr(reply);
}

std::string NameOwner(GDBusConnection* connection, const char* name) {
  GVariant* reply = g_dbus_connection_call_sync(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                "org.freedesktop.DBus", "GetNameOwner", g_variant_new("(s)", name),
                                                G_VARIANT_TYPE("(s)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
  if (reply == nullptr) return {};
  GVariantPtr owned(reply);
  const gchar* owner = nullptr;
  g_variant_get(reply, "(&s)", &owner);
  return owner;
}

// The daemon's control surface.
class Control {
 public:
  explicit Control(GDBusConnection* connection) : connection_(connection) {}
  void SetProfiles(guint32 count) { Call("SetProfiles", g_variant_new("(u)", count)); }
  Ns Emit(const std::string& destination) { return Time(Call("Emit", g_variant_new("(s)", destination.c_str()))); }
  void ReleaseName() { Call("ReleaseName", nullptr); }
  Ns AcquireName() { return Time(Call("AcquireName", nullptr)); }
  void Quit() { Call("Quit", nullptr); }

 private:
  GVariantPtr Call(const char* method, GVariant* parameters) {
    return CallSync(connection_, "zorvel.bench", "/zorvel/bench", "zorvel.bench.Control", method, parameters);
  }
  static Ns Time(const GVariantPtr& reply) {
    guint64 value = 0;
    g_variant_get(reply.get(), "(t)", &value);
    return value;
  }
  GDBusConnection* connection_;
};

// ---------------------------------------------------------------------------
// What the application observes: one probe per side, fed by the callbacks.

enum Side { kLib = 0, kFloor = 1 };
const char* const kSideName[] = {"library", "plain GDBus"};

class Probe {
 public:
  struct Event {
    Ns at = 0;
    int id = 0;
    std::string name;
  };

  void Found(int id, const std::string& name) {
    const Ns at = NowNs();
    std::lock_guard<std::mutex> lock(mutex_);
    ++found_;
    lastFound_ = Event{at, id, name};
    if (profileTarget_ != 0 && ++profiles_ == profileTarget_) profilesDoneAt_ = at;
    changed_.notify_all();
  }
  void ConnectionAvailable(int id) {
    const Ns at = NowNs();
    std::lock_guard<std::mutex> lock(mutex_);
    ++available_;
    lastAvailable_ = Event{at, id, {}};
    changed_.notify_all();
  }

  std::uint64_t FoundCount() {
    std::lock_guard<std::mutex> lock(mutex_);
    return found_;
  }
  std::uint64_t AvailableCount() {
    std::lock_guard<std::mutex> lock(mutex_);
    return available_;
  }
  std::uint64_t Echoes() {
    std::lock_guard<std::mutex> lock(mutex_);
    return found_ + available_;
  }

  // Waits until more than `seen` onFound deliveries arrived; the last one.
  bool WaitFound(std::uint64_t seen, Event& event, int timeoutMs = 5000) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return found_ > seen; })) return false;
    event = lastFound_;
    return true;
  }
  bool WaitAvailable(std::uint64_t seen, Event& event, int timeoutMs = 5000) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return available_ > seen; })) {
      return false;
    }
    event = lastAvailable_;
    return true;
  }
  bool WaitEchoes(std::uint64_t count, int timeoutMs) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                             [&] { return found_ + available_ >= count; });
  }

  // Counts the next `target` onFound deliveries as profiles.
  void ExpectProfiles(int target) {
    std::lock_guard<std::mutex> lock(mutex_);
    profileTarget_ = target;
    profiles_ = 0;
    profilesDoneAt_ = 0;
  }
  bool WaitProfiles(Ns& doneAt, int timeoutMs) {
    std::unique_lock<std::mutex> lock(mutex_);
    const bool done = changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                        [&] { return profilesDoneAt_ != 0; });
    doneAt = profilesDoneAt_;
    profileTarget_ = 0;
    return done;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::uint64_t found_ = 0;
  std::uint64_t available_ = 0;
  Event lastFound_;
  Event lastAvailable_;
  int profileTarget_ = 0;
  int profiles_ = 0;
  Ns profilesDoneAt_ = 0;
};

Ns ParseNs(const std::string& text) { return std::strtoull(text.c_str(), nullptr, 10); }

// ---------------------------------------------------------------------------
// The floor: what an application writes with GDBus alone.

class Floor {
 public:
  Floor(const std::string& address, Probe& probe) : probe_(probe) {
    connection_.reset(OpenConnection(address));
    GError* raw = nullptr;
    // The application needs neither cached properties nor the proxy's own
    // g-signal emission; it subscribes to the daemon's signals itself.
    proxy_.reset(g_dbus_proxy_new_sync(connection_.get(),
                                       static_cast<GDBusProxyFlags>(G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES |
                                                                    G_DBUS_PROXY_FLAGS_DO_NOT_CONNECT_SIGNALS),
                                       nullptr, contract::kBusName.c_str(), contract::kObjectPath.c_str(),
                                       contract::kInterfaceName.c_str(), nullptr, &raw));
    GErrorPtr error(raw);
    if (!proxy_) Fatal(std::string("floor proxy: ") + error->message);
    // Subscribed from a thread without a thread-default context: delivered
    // on the global default context, the one the library's signals use.
    subscription_ = g_dbus_connection_signal_subscribe(
        connection_.get(), contract::kBusName.c_str(), contract::kInterfaceName.c_str(), nullptr,
        contract::kObjectPath.c_str(), nullptr, G_DBUS_SIGNAL_FLAGS_NONE, &Floor::OnSignal, this, nullptr);
    onFound_ = [this](int id, const std::string& name) { probe_.Found(id, name); };
    onAvailable_ = [this](int id, bool /*available*/) { probe_.ConnectionAvailable(id); };
  }
  ~Floor() {
    g_dbus_connection_signal_unsubscribe(connection_.get(), subscription_);
    proxy_.reset();
    g_dbus_connection_close_sync(connection_.get(), nullptr, nullptr);
  }

  std::string UniqueName() const { return g_dbus_connection_get_unique_name(connection_.get()); }

  // A method call that waits for the daemon's integer answer.
  void Call(const std::string& method, int argument) {
    GError* raw = nullptr;
    GVariant* reply = g_dbus_proxy_call_sync(proxy_.get(), method.c_str(), g_variant_new("(i)", argument),
                                             G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &raw);
    GErrorPtr error(raw);
    if (reply == nullptr) Fatal("floor " + method + ": " + (error ? error->message : "?"));
    g_variant_unref(reply);
  }

  // readProfiles, decoded by hand into one callback per profile.
  std::size_t ReadProfiles() {
    GError* raw = nullptr;
    GVariant* reply = g_dbus_proxy_call_sync(proxy_.get(), contract::kMethodReadProfiles.c_str(), nullptr,
                                             G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &raw);
    GErrorPtr error(raw);
    if (reply == nullptr) Fatal(std::string("floor readProfiles: ") + (error ? error->message : "?"));
    GVariantPtr owned(reply);
    GVariantPtr list(g_variant_get_child_value(reply, 0));
    const std::size_t n = g_variant_n_children(list.get());
    std::size_t delivered = 0;
    for (std::size_t i = 1; i + 1 < n; i += 2) {
      const int id = std::atoi(Text(list.get(), i).c_str());
      const std::string name = Text(list.get(), i + 1);
      onFound_(id, name);
      ++delivered;
    }
    return delivered;
  }

  // Async calls without waiting, answered on the main loop.
  void CallAsync(const std::string& method, int argument, std::atomic<int>& answered) {
    g_dbus_proxy_call(proxy_.get(), method.c_str(), g_variant_new("(i)", argument), G_DBUS_CALL_FLAGS_NONE, -1,
                      nullptr, &Floor::OnAnswer, &answered);
  }

 private:
  // The base64 text of the "(s)" child `index` of `list`, decoded.
  static std::string Text(GVariant* list, std::size_t index) {
    GVariantPtr element(g_variant_get_child_value(list, index));
    const gchar* encoded = nullptr;
    g_variant_get(element.get(), "(&s)", &encoded);
    gsize length = 0;
    guchar* decoded = g_base64_decode(encoded, &length);
    std::string text(reinterpret_cast<const char*>(decoded), length);
    g_free(decoded);
    return text;
  }

  static void OnAnswer(GObject* proxy, GAsyncResult* result, gpointer data) {
    GVariant* reply = g_dbus_proxy_call_finish(G_DBUS_PROXY(proxy), result, nullptr);
    if (reply != nullptr) g_variant_unref(reply);
    ++*static_cast<std::atomic<int>*>(data);
  }

  static void OnSignal(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* member,
                       GVariant* parameters, gpointer data) {
    auto& self = *static_cast<Floor*>(data);
    if (contract::kSignalOnFound == member && g_variant_is_of_type(parameters, G_VARIANT_TYPE("(ayq)"))) {
      GVariant* bytes = nullptr;
      guint16 number = 0;
      g_variant_get(parameters, "(@ayq)", &bytes, &number);
      gsize length = 0;
      const auto* data64 = static_cast<const char*>(g_variant_get_fixed_array(bytes, &length, 1));
      const std::string encoded(data64 != nullptr ? data64 : "", length);
      gsize decodedLength = 0;
      guchar* decoded = g_base64_decode(encoded.c_str(), &decodedLength);
      const std::string name(reinterpret_cast<const char*>(decoded), decodedLength);
      g_free(decoded);
      g_variant_unref(bytes);
      self.onFound_(number, name);
    } else if (contract::kSignalOnConnectionAvailable == member &&
               g_variant_is_of_type(parameters, G_VARIANT_TYPE("(qq)"))) {
      guint16 id = 0;
      guint16 state = 0;
      g_variant_get(parameters, "(qq)", &id, &state);
      self.onAvailable_(id, state != 0);
    }
  }

  Probe& probe_;
  GObjectPtr<GDBusConnection> connection_;
  GObjectPtr<GDBusProxy> proxy_;
  guint subscription_ = 0;
  std::function<void(int, const std::string&)> onFound_;
  std::function<void(int, bool)> onAvailable_;
};

// ---------------------------------------------------------------------------
// The library side.

class Library {
 public:
  explicit Library(Probe& probe) {
    launcher_.SetOnInstanceFoundCallback([&probe](int id, const std::string& name) { probe.Found(id, name); });
    launcher_.SetOnConnectionAvailable([&probe](int id, bool /*available*/) { probe.ConnectionAvailable(id); });
    if (launcher_.Init() != 0) Fatal("Launcher::Init failed");
    client_ = dynamic_cast<DBusClientAsync*>(zv_client::zorvel::testing::CurrentClient());
    if (client_ == nullptr) Fatal("no command layer installed");
  }

  zv_client::zorvel::Launcher& launcher() { return launcher_; }
  DBusClientAsync& client() { return *client_; }

  // Issues `method` ("connect" with `id`, or "startBroadcast"); returns how
  // long the caller was blocked.
  Ns Issue(const std::string& method, int id) {
    const Ns start = NowNs();
    int rc = 0;
    if (method == contract::kMethodConnect) {
      rc = launcher_.Connect(id);
    } else {
      rc = launcher_.StartBroadcast(true);
    }
    const Ns blocked = NowNs() - start;
    if (rc != 0) Fatal("Launcher refused " + method);
    return blocked;
  }

  // Waits until every accepted command has ended (its thread is done).
  bool WaitIdle(int timeoutMs = 10000) {
    const Ns deadline = NowNs() + static_cast<Ns>(timeoutMs) * 1000000ULL;
    while (client_->GetCounts().inFlight != 0) {
      if (NowNs() > deadline) return false;
      std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
    return true;
  }

 private:
  zv_client::zorvel::Launcher launcher_;
  DBusClientAsync* client_ = nullptr;
};

// ---------------------------------------------------------------------------
// Log sinks used around the measurements.

bool gTrace = false;  // --trace; the figures are then not the default cost

// --timeline: the library's lines are kept in memory with their time and
// written to <out>/timeline.txt at the end; cheap enough to show where the
// time of a command goes between its log lines.
struct Timeline {
  std::mutex mutex;
  std::vector<std::pair<Ns, std::string>> lines;  // guarded by mutex
};
Timeline* gTimeline = nullptr;

void Record(const char* tag, const char* text) {
  const Ns now = NowNs();
  std::string line = std::string(tag) + ": " + text;
  std::lock_guard<std::mutex> lock(gTimeline->mutex);
  gTimeline->lines.emplace_back(now, std::move(line));
}

// Forwards a line to the system log the way the library's default output
// does, so a sink that only watches lines keeps the default cost.
void WriteToSystemLog(platform::LogBuffer buffer, platform::LogPriority priority, const char* tag,
                      const char* text) {
  if (!platform::detail::JournalReachable()) return;
  const std::string message = std::string("MESSAGE=") + text;
  platform::detail::JournalSend(buffer, priority, tag, {nullptr, 0, nullptr}, message.data(), message.size());
}

// Counts lines (and drops them).
struct LineCounter {
  std::atomic<std::uint64_t> lines{0};
  void Install() {
    platform::SetLogSink([this](platform::LogBuffer, platform::LogPriority, const char*, const char*) { ++lines; });
  }
};

void SilenceLog() {
  platform::SetLogSink([](platform::LogBuffer, platform::LogPriority, const char*, const char*) {});
}

// --trace: the library's lines go to stderr instead of the system log, as
// they are written (for finding out why a run stalls).
void TraceSink() {
  platform::SetLogSink([](platform::LogBuffer, platform::LogPriority, const char* tag, const char* text) {
    std::fprintf(stderr, "%.6f %s: %s\n", static_cast<double>(NowNs()) / 1e9, tag, text);
  });
}

void DefaultLog() {
  if (gTimeline != nullptr) {
    platform::SetLogSink(
        [](platform::LogBuffer, platform::LogPriority, const char* tag, const char* text) { Record(tag, text); });
  } else if (gTrace) {
    TraceSink();
  } else {
    platform::SetLogSink(nullptr);
  }
}

// ---------------------------------------------------------------------------
// Log lines on their own

// A typical line of the command layer, through the library's own entry.
void LogOneLine(const std::string& thread) {
  platform::LogPrint(platform::LogBuffer::kSystem, platform::LogPriority::kInfo, "zorvel.dbus_client",
                     "%s: %s(%d) > thd: %s \"ExecuteCommand[%s] STARTED IsReady[%d] IsConnected[%d] cmdPool[%zu]\"",
                     "DBusClientAsync.cpp", "ExecuteCommand", 182, thread.c_str(), "startBroadcast", 1, 1,
                     static_cast<std::size_t>(0));
}

// Lines back to back: the mean cost per line when logging is all a thread does.
double TimeLogLines(int lines) {
  const std::string thread = logt::thread_id();
  const Ns start = NowNs();
  for (int i = 0; i < lines; ++i) LogOneLine(thread);
  return static_cast<double>(NowNs() - start) / 1e3 / lines;
}

// Lines one at a time, as the library writes them between other work: the
// median time the logging thread spends on one line.
double TimeSpacedLogLines(int lines) {
  const std::string thread = logt::thread_id();
  std::vector<double> costs;
  costs.reserve(static_cast<std::size_t>(lines));
  for (int i = 0; i < lines; ++i) {
    const Ns start = NowNs();
    LogOneLine(thread);
    costs.push_back(static_cast<double>(NowNs() - start) / 1e3);
    std::this_thread::sleep_for(std::chrono::microseconds(50));
  }
  return Summarise(costs).median;
}

// The default output with a journal listening, whether or not this machine
// has one: a child, forked while this process has no other thread yet,
// enters a mount namespace where /run/systemd/journal/socket is a datagram
// socket of its own, drained by a thread as journald would, and times the
// library's lines to it. The median per line in us, or -1 (with the reason
// on stderr) when the namespace cannot be had.
double MeasureLiveJournalLine(int lines) {
  int result[2];
  if (pipe2(result, O_CLOEXEC) != 0) Fatal("pipe2 failed");
  const pid_t child = fork();
  if (child < 0) Fatal(std::string("fork: ") + std::strerror(errno));
  if (child == 0) {
    close(result[0]);
    std::string why = zv_client::testing::EnterPrivateJournalDir();
    const int fd = why.empty() ? zv_client::testing::ListenAsJournal() : -1;
    if (why.empty() && fd < 0) why = std::string("cannot bind the journal's socket: ") + std::strerror(errno);
    double perLine = -1;
    if (fd >= 0) {
      std::atomic<long> received{0};
      std::thread drain([fd, &received] {
        std::vector<char> datagram(256 * 1024);
        // Ends when the socket is shut down below (recv then returns 0).
        while (recv(fd, datagram.data(), datagram.size(), 0) > 0) ++received;
      });
      TimeLogLines(1000);  // warm-up
      perLine = TimeSpacedLogLines(lines);
      shutdown(fd, SHUT_RDWR);
      drain.join();
      if (received == 0) {
        perLine = -1;
        why = "no line reached the socket";
      }
    }
    if (perLine < 0) {
      std::fprintf(stderr, "zorvel-bench: no journal of our own (%s); log_live_us_per_line not measured\n",
                   why.c_str());
    }
    const bool sent = write(result[1], &perLine, sizeof perLine) == static_cast<ssize_t>(sizeof perLine);
    std::_Exit(sent ? 0 : 1);
  }
  close(result[1]);
  double perLine = -1;
  if (read(result[0], &perLine, sizeof perLine) != static_cast<ssize_t>(sizeof perLine)) perLine = -1;
  close(result[0]);
  int status = 0;
  waitpid(child, &status, 0);
  return perLine;
}

// ---------------------------------------------------------------------------
// Results

struct Results {
  std::map<std::string, double> figures;  // the JSON object, in key order
};

// Table lines are printed as the measurements finish.
void Print(const char* line) {
  std::printf("%s\n", line);
  std::fflush(stdout);
}

void Row(const char* what, const Stats& lib, const Stats& floor, const char* unit = "us") {
  char line[256];
  std::snprintf(line, sizeof line, "  %-34s %9.1f %9.1f   %9.1f %9.1f   %6.2f %6.2f  (%s, n=%zu/%zu)", what,
                lib.median, lib.p99, floor.median, floor.p99, Ratio(lib.median, floor.median),
                Ratio(lib.p99, floor.p99), unit, lib.n, floor.n);
  Print(line);
}

void Line(const char* format, ...) __attribute__((format(printf, 1, 2)));
void Line(const char* format, ...) {
  char line[512];
  va_list args;
  va_start(args, format);
  std::vsnprintf(line, sizeof line, format, args);
  va_end(args);
  Print(line);
}

void WriteSamples(const Options& options, const std::string& name, std::vector<double> values) {
  std::sort(values.begin(), values.end());
  std::ofstream out(options.outDir + "/" + name + ".dat");
  out << "# sorted samples (us) and their cumulative fraction\n";
  for (std::size_t i = 0; i < values.size(); ++i) {
    out << values[i] << ' ' << static_cast<double>(i + 1) / static_cast<double>(values.size()) << '\n';
  }
}

// ---------------------------------------------------------------------------
// The benchmark

class Bench {
 public:
  Bench(Options options, const std::string& address, GDBusConnection* control)
      : options_(std::move(options)), control_(control), floor_(address, floorProbe_), library_(libProbe_) {
    // The library's link to the daemon is GLib's shared system-bus connection.
    GError* raw = nullptr;
    systemBus_.reset(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &raw));
    GErrorPtr error(raw);
    if (!systemBus_) Fatal(std::string("system bus: ") + error->message);
    g_dbus_connection_set_exit_on_close(systemBus_.get(), FALSE);
    libName_ = g_dbus_connection_get_unique_name(systemBus_.get());
    floorName_ = floor_.UniqueName();
  }

  void Run() {
    WaitLibraryReady();
    if (HasPhase(options_, "call")) CallPhase();
    if (HasPhase(options_, "signal")) SignalPhase();
    if (HasPhase(options_, "profiles")) ProfilesPhase();
    if (HasPhase(options_, "burst")) BurstPhase();
    if (HasPhase(options_, "recovery")) RecoveryPhase();
    if (HasPhase(options_, "log")) LogPhase();
    Plot();
  }

  Results& results() { return results_; }

 private:
  static const std::string& Other(const std::string& method) {
    return method == contract::kMethodConnect ? contract::kMethodStartBroadcast : contract::kMethodConnect;
  }

  // Library side, untimed: issues `method` and waits until its thread has
  // ended and, if it ran, for its echo. False when the duplicate guard
  // dropped it (the guard then holds `method` as the active command).
  bool LibRunOnce(const std::string& method) {
    if (method == contract::kMethodConnect && libConnected_) Fatal("Connect would be refused");
    const auto before = library_.client().GetCounts();
    const std::uint64_t echoes = libProbe_.Echoes();
    library_.Issue(method, NextId());
    libConnected_ = method == contract::kMethodConnect;
    library_.WaitIdle();
    lastLibMethod_ = method;
    if (library_.client().GetCounts().ranAtOnce == before.ranAtOnce) return false;
    if (!libProbe_.WaitEchoes(echoes + 1, 5000)) Fatal("no echo for " + method);
    return true;
  }

  // Runs `method` at once, putting the other command before it when the
  // guard or the Launcher would refuse it.
  void LibRun(const std::string& method) {
    if (method == lastLibMethod_ || (method == contract::kMethodConnect && libConnected_)) {
      LibRunOnce(Other(method));
    }
    if (LibRunOnce(method)) return;
    LibRunOnce(Other(method));
    if (!LibRunOnce(method)) Fatal("cannot run " + method);
  }

  // Lets the thread of an untimed command finish exiting: a thread that has
  // just exited slows down the start of the next one, which would otherwise
  // be charged to the sample that follows.
  static void Settle() { SleepMs(0.5); }

  int NextId() { return 1 + static_cast<int>(idCounter_++ % 60000); }

  void WaitLibraryReady() {
    // The first command is held until the library's retry timer has connected
    // and the daemon's name is seen; its echo means the library is ready.
    const Ns start = NowNs();
    const std::uint64_t echoes = libProbe_.Echoes();
    library_.Issue(contract::kMethodStartBroadcast, 0);
    if (!libProbe_.WaitEchoes(echoes + 1, 10000)) Fatal("the library did not become ready");
    library_.WaitIdle();
    lastLibMethod_ = contract::kMethodStartBroadcast;
    Line("  library ready after %.1f ms (first command held, then replayed)",
         static_cast<double>(NowNs() - start) / 1e6);
  }

  // The arms of a comparison: the library with its default log output, the
  // floor, and (unless --no-silent-pass) the library with every log line
  // dropped, which tells how much of the difference is logging. Calls have a
  // fourth: plain GDBus making each call on a new thread of its own, the
  // least that one detached thread per command can cost.
  enum Arm { kArmLib = 0, kArmFloor = 1, kArmSilent = 2, kArmThreadFloor = 3 };

  // Runs `rounds` rounds of one sample per arm. The order rotates from round
  // to round, so that no arm always runs right after another one.
  template <typename Sample>
  void Rounds(int rounds, bool threadFloor, Sample sample) {
    std::vector<Arm> arms{kArmLib, kArmFloor};
    if (options_.silentPass) arms.push_back(kArmSilent);
    if (threadFloor) arms.push_back(kArmThreadFloor);
    const std::size_t n = arms.size();
    for (int i = 0; i < rounds; ++i) {
      for (std::size_t k = 0; k < n; ++k) {
        const Arm arm = arms[(static_cast<std::size_t>(i) + k) % n];
        if (arm == kArmSilent) SilenceLog();
        sample(arm, i);
        if (arm == kArmSilent) DefaultLog();
      }
    }
  }

  // One timed library call: from the call to the echo's callback.
  double LibCallSample(const std::string& method, std::vector<double>& accept, std::vector<double>& outbound) {
    // Untimed: keep the guard and the Launcher from refusing `method`.
    if (method == lastLibMethod_ || (method == contract::kMethodConnect && libConnected_)) {
      LibRun(Other(method));
      Settle();
    }
    const int id = NextId();
    Probe::Event event;
    const std::uint64_t found = libProbe_.FoundCount();
    const std::uint64_t available = libProbe_.AvailableCount();
    const Ns start = NowNs();
    accept.push_back(Us(library_.Issue(method, id)));
    const bool ok = method == contract::kMethodConnect ? libProbe_.WaitAvailable(available, event)
                                                        : libProbe_.WaitFound(found, event);
    if (!ok) Fatal("library: no echo for " + method);
    libConnected_ = method == contract::kMethodConnect;
    lastLibMethod_ = method;
    library_.WaitIdle();  // the command thread's tail is not the next sample's cost
    if (method == contract::kMethodStartBroadcast) outbound.push_back(Us(ParseNs(event.name) - start));
    return Us(event.at - start);
  }

  // `accept`, if given, gets how long creating the thread blocked the caller.
  double FloorCallSample(const std::string& method, std::vector<double>& outbound, bool onNewThread = false,
                         std::vector<double>* accept = nullptr) {
    const int id = NextId();
    const int argument = method == contract::kMethodConnect ? id : 1;
    Probe::Event event;
    const std::uint64_t found = floorProbe_.FoundCount();
    const std::uint64_t available = floorProbe_.AvailableCount();
    std::atomic<bool> done{false};
    const Ns start = NowNs();
    if (onNewThread) {
      std::thread([&] {
        floor_.Call(method, argument);
        done = true;
      }).detach();
      if (accept != nullptr) accept->push_back(Us(NowNs() - start));
    } else {
      floor_.Call(method, argument);
      done = true;
    }
    const bool ok = method == contract::kMethodConnect ? floorProbe_.WaitAvailable(available, event)
                                                        : floorProbe_.WaitFound(found, event);
    if (!ok) Fatal("floor: no echo for " + method);
    while (!done) std::this_thread::sleep_for(std::chrono::microseconds(20));  // the thread's tail is not the next sample's
    if (onNewThread) Settle();
    if (method == contract::kMethodStartBroadcast) outbound.push_back(Us(ParseNs(event.name) - start));
    return Us(event.at - start);
  }

  static double Us(Ns ns) { return static_cast<double>(ns) / 1e3; }

  // What one detached thread per command costs by itself: from creating a
  // thread to its first instruction.
  static double ThreadStartSample() {
    std::mutex mutex;
    std::condition_variable started;
    Ns at = 0;
    const Ns start = NowNs();
    std::thread([&] {
      const Ns now = NowNs();
      std::lock_guard<std::mutex> lock(mutex);
      at = now;
      started.notify_all();
    }).detach();
    std::unique_lock<std::mutex> lock(mutex);
    started.wait(lock, [&] { return at != 0; });
    return Us(at - start);
  }

  // How much of the median overhead over the floor is logging.
  void LoggingShare(const char* what, const Stats& lib, const Stats& silent, const Stats& floor,
                    const std::string& key) {
    const double overhead = lib.median - floor.median;
    const double logging = lib.median - silent.median;
    if (overhead <= 0) return;
    Line("    logging: %.0f of the %.0f us median overhead of the %s (%.0f%%)", logging, overhead, what,
         100.0 * logging / overhead);
    results_.figures[key] = logging / overhead;
  }

  void CallPhase() {
    std::vector<double> samples[4], accept[4], outbound[4], threadStart;
    // Every arm of a round makes the same call, Connect and StartBroadcast in
    // turn, so each arm sees the same mix.
    Rounds(options_.callSamples, true, [&](Arm arm, int round) {
      const std::string& method = round % 2 == 0 ? contract::kMethodConnect : contract::kMethodStartBroadcast;
      if (arm == kArmFloor || arm == kArmThreadFloor) {
        samples[arm].push_back(FloorCallSample(method, outbound[arm], arm == kArmThreadFloor, &accept[arm]));
      } else {
        samples[arm].push_back(LibCallSample(method, accept[arm], outbound[arm]));
      }
    });
    // Apart from the rounds, so that these threads slow down no sample.
    for (int i = 0; i < std::max(100, options_.callSamples / 4); ++i) {
      threadStart.push_back(ThreadStartSample());
      SleepMs(0.2);
    }
    const Stats lib = Summarise(samples[kArmLib]), floor = Summarise(samples[kArmFloor]);
    const Stats libOut = Summarise(outbound[kArmLib]), floorOut = Summarise(outbound[kArmFloor]);
    const Stats acceptStats = Summarise(accept[kArmLib]), threadStats = Summarise(threadStart);
    Row("call -> echo callback", lib, floor);
    Row("  of which call -> daemon", libOut, floorOut);
    Line("  %-34s %9.1f %9.1f   (us, caller blocked in Connect/StartBroadcast)", "accept",
         acceptStats.median, acceptStats.p99);
    Line("  %-34s %9.1f %9.1f   (us, to a new thread's first instruction)", "  thread start alone",
         threadStats.median, threadStats.p99);
    results_.figures["call_ratio_median"] = Ratio(lib.median, floor.median);
    results_.figures["call_ratio_p99"] = Ratio(lib.p99, floor.p99);
    results_.figures["call_lib_us_median"] = lib.median;
    results_.figures["call_floor_us_median"] = floor.median;
    results_.figures["call_outbound_ratio_median"] = Ratio(libOut.median, floorOut.median);
    results_.figures["accept_us_median"] = acceptStats.median;
    results_.figures["accept_us_p99"] = acceptStats.p99;
    results_.figures["thread_start_us_median"] = threadStats.median;
    results_.figures["thread_start_us_p99"] = threadStats.p99;
    const Stats threadFloor = Summarise(samples[kArmThreadFloor]);
    const Stats threadFloorOut = Summarise(outbound[kArmThreadFloor]);
    Row("plain GDBus, a thread per call", threadFloor, floor);
    Row("  of which call -> daemon", threadFloorOut, floorOut);
    const Stats threadAccept = Summarise(accept[kArmThreadFloor]);
    Line("  %-34s %9.1f %9.1f   (us, creating the thread)", "  accept", threadAccept.median, threadAccept.p99);
    Line("    library against this floor of a thread per command: x%.2f at the median", Ratio(lib.median, threadFloor.median));
    results_.figures["accept_thread_floor_us_median"] = threadAccept.median;
    results_.figures["accept_thread_floor_us_p99"] = threadAccept.p99;
    results_.figures["call_thread_floor_ratio_median"] = Ratio(threadFloor.median, floor.median);
    results_.figures["call_ratio_vs_thread_floor_median"] = Ratio(lib.median, threadFloor.median);
    WriteSamples(options_, "call_lib", samples[kArmLib]);
    WriteSamples(options_, "call_floor", samples[kArmFloor]);
    WriteSamples(options_, "call_thread_floor", samples[kArmThreadFloor]);
    if (options_.silentPass) {
      const Stats silent = Summarise(samples[kArmSilent]), silentOut = Summarise(outbound[kArmSilent]);
      const Stats silentAccept = Summarise(accept[kArmSilent]);
      Row("call, library log silenced", silent, floor);
      Row("  of which call -> daemon", silentOut, floorOut);
      Line("  %-34s %9.1f %9.1f   (us)", "accept, library log silenced", silentAccept.median,
           silentAccept.p99);
      LoggingShare("call", lib, silent, floor, "call_logging_share");
      results_.figures["call_ratio_median_silent"] = Ratio(silent.median, floor.median);
      results_.figures["call_ratio_p99_silent"] = Ratio(silent.p99, floor.p99);
      results_.figures["accept_us_median_silent"] = silentAccept.median;
      results_.figures["accept_us_p99_silent"] = silentAccept.p99;
      WriteSamples(options_, "call_silent", samples[kArmSilent]);
    }
  }

  double SignalSample(Side side) {
    Probe& probe = side == kLib ? libProbe_ : floorProbe_;
    Probe::Event event;
    const std::uint64_t found = probe.FoundCount();
    control_.Emit(side == kLib ? libName_ : floorName_);
    if (!probe.WaitFound(found, event)) Fatal(std::string(kSideName[side]) + ": signal not delivered");
    return Us(event.at - ParseNs(event.name));
  }

  void SignalPhase() {
    std::vector<double> samples[3];
    Rounds(options_.signalSamples, false, [&](Arm arm, int) {
      samples[arm].push_back(SignalSample(arm == kArmFloor ? kFloor : kLib));
    });
    const Stats lib = Summarise(samples[kArmLib]), floor = Summarise(samples[kArmFloor]);
    Row("daemon signal -> callback", lib, floor);
    results_.figures["signal_ratio_median"] = Ratio(lib.median, floor.median);
    results_.figures["signal_ratio_p99"] = Ratio(lib.p99, floor.p99);
    results_.figures["signal_lib_us_median"] = lib.median;
    results_.figures["signal_floor_us_median"] = floor.median;
    WriteSamples(options_, "signal_lib", samples[kArmLib]);
    WriteSamples(options_, "signal_floor", samples[kArmFloor]);
    if (options_.silentPass) {
      const Stats silent = Summarise(samples[kArmSilent]);
      Row("signal, library log silenced", silent, floor);
      LoggingShare("signal", lib, silent, floor, "signal_logging_share");
      results_.figures["signal_ratio_median_silent"] = Ratio(silent.median, floor.median);
      WriteSamples(options_, "signal_silent", samples[kArmSilent]);
    }
  }

  double LibProfilesSample() {
    // readProfiles must not follow readProfiles, or the guard drops it.
    LibRun(Other(lastLibMethod_));
    Settle();
    libProbe_.ExpectProfiles(options_.profileCount);
    const Ns start = NowNs();
    if (!library_.launcher().ReadProfiles().empty()) Fatal("ReadProfiles answered synchronously");
    Ns doneAt = 0;
    if (!libProbe_.WaitProfiles(doneAt, 30000)) Fatal("library: profiles not delivered");
    library_.WaitIdle();
    lastLibMethod_ = contract::kMethodReadProfiles;
    return Us(doneAt - start);
  }

  double FloorProfilesSample() {
    floorProbe_.ExpectProfiles(options_.profileCount);
    const Ns start = NowNs();
    if (floor_.ReadProfiles() != static_cast<std::size_t>(options_.profileCount)) Fatal("floor: profile count");
    Ns doneAt = 0;
    if (!floorProbe_.WaitProfiles(doneAt, 1000)) Fatal("floor: profiles not delivered");
    return Us(doneAt - start);
  }

  void ProfilesPhase() {
    if (options_.profileCount > kMaxProfilesOnTheBus) {
      Line("  (%d profiles asked for; the profile list payload carries at most %d over a bus: "
           "D-Bus signatures are limited to 255 characters)", options_.profileCount, kMaxProfilesOnTheBus);
      options_.profileCount = kMaxProfilesOnTheBus;
    }
    control_.SetProfiles(static_cast<guint32>(options_.profileCount));
    std::vector<double> samples[3];
    Rounds(options_.profileRuns, false, [&](Arm arm, int) {
      samples[arm].push_back(arm == kArmFloor ? FloorProfilesSample() : LibProfilesSample());
    });
    control_.SetProfiles(0);
    const Stats lib = Summarise(samples[kArmLib]), floor = Summarise(samples[kArmFloor]);
    char what[64];
    std::snprintf(what, sizeof what, "ReadProfiles x%d -> last callback", options_.profileCount);
    Row(what, lib, floor);
    results_.figures["profiles_ratio"] = Ratio(lib.median, floor.median);
    results_.figures["profiles_count"] = options_.profileCount;
    results_.figures["profiles_lib_us_median"] = lib.median;
    results_.figures["profiles_floor_us_median"] = floor.median;
    if (options_.silentPass) {
      const Stats silent = Summarise(samples[kArmSilent]);
      Row("ReadProfiles, library log silenced", silent, floor);
      LoggingShare("profile read", lib, silent, floor, "profiles_logging_share");
      results_.figures["profiles_ratio_silent"] = Ratio(silent.median, floor.median);
    }
  }

  struct ProcStatus {
    long threads = 0;
    long rssKb = 0;
    long hwmKb = 0;
  };

  static ProcStatus ReadStatus() {
    ProcStatus status;
    std::ifstream in("/proc/self/status");
    std::string key;
    while (in >> key) {
      if (key == "Threads:") {
        in >> status.threads;
      } else if (key == "VmRSS:") {
        in >> status.rssKb;
      } else if (key == "VmHWM:") {
        in >> status.hwmKb;
      }
      in.ignore(1 << 20, '\n');
    }
    return status;
  }

  static long ThreadCount() {
    // Field 20 of /proc/self/stat; cheaper to read than the status file.
    char buffer[1024];
    const int fd = open("/proc/self/stat", O_RDONLY | O_CLOEXEC);
    if (fd < 0) return 0;
    const ssize_t n = read(fd, buffer, sizeof buffer - 1);
    close(fd);
    if (n <= 0) return 0;
    buffer[n] = '\0';
    const char* p = std::strrchr(buffer, ')');
    if (p == nullptr) return 0;
    for (int field = 2; field < 20 && p != nullptr; ++field) p = std::strchr(p + 1, ' ');
    return p != nullptr ? std::strtol(p + 1, nullptr, 10) : 0;
  }

  void BurstPhase() {
    std::vector<double> libMs, floorMs, burstAccept;
    double ranTotal = 0, droppedTotal = 0;
    long peakThreads = 0, peakRssGrowth = 0, baseThreads = 0;
    for (int run = 0; run < options_.burstRuns; ++run) {
      // Library: `burstSize` commands, alternating, back to back from this thread.
      LibRun(contract::kMethodStartBroadcast);
      const std::uint64_t echoesBefore = libProbe_.Echoes();
      const auto before = library_.client().GetCounts();
      {
        std::ofstream reset("/proc/self/clear_refs");
        reset << "5";  // restart the peak-RSS mark
      }
      const ProcStatus base = ReadStatus();
      baseThreads = base.threads;
      std::atomic<bool> sampling{true};
      std::atomic<long> threads{base.threads};
      std::thread sampler([&] {
        while (sampling) {
          const long now = ThreadCount();
          if (now > threads) threads = now;
          std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
      });

      std::string method = contract::kMethodConnect;
      const Ns start = NowNs();
      for (int i = 0; i < options_.burstSize; ++i) {
        if (method == contract::kMethodConnect && libConnected_) Fatal("burst: Connect would be refused");
        burstAccept.push_back(Us(library_.Issue(method, NextId())));
        libConnected_ = method == contract::kMethodConnect;
        method = Other(method);
      }
      Ns end = 0;
      for (;;) {
        const auto counts = library_.client().GetCounts();
        if (counts.inFlight == 0 && counts.accepted - before.accepted == static_cast<std::uint64_t>(options_.burstSize)) {
          end = NowNs();
          break;
        }
        if (NowNs() - start > 60000000000ULL) Fatal("burst did not end");
        std::this_thread::sleep_for(std::chrono::microseconds(200));
      }
      sampling = false;
      sampler.join();
      const ProcStatus after = ReadStatus();
      const auto counts = library_.client().GetCounts();
      const double ran = static_cast<double>(counts.ranAtOnce - before.ranAtOnce);
      const double dropped = static_cast<double>(counts.droppedDuplicate - before.droppedDuplicate);
      libMs.push_back(static_cast<double>(end - start) / 1e6);
      ranTotal += ran;
      droppedTotal += dropped;
      peakThreads = std::max(peakThreads, threads.load());
      peakRssGrowth = std::max(peakRssGrowth, after.hwmKb - base.rssKb);
      // Every command that ran is echoed; let the echoes drain before the
      // next measurement. Which method ran last is unknown now.
      libProbe_.WaitEchoes(echoesBefore + static_cast<std::uint64_t>(ran), 30000);
      lastLibMethod_.clear();

      // Floor: the same number of calls, sent without waiting, until every
      // answer is in.
      std::atomic<int> answered{0};
      const Ns floorStart = NowNs();
      for (int i = 0; i < options_.burstSize; ++i) {
        floor_.CallAsync(i % 2 == 0 ? contract::kMethodConnect : contract::kMethodStartBroadcast, NextId(), answered);
      }
      while (answered < options_.burstSize) {
        if (NowNs() - floorStart > 60000000000ULL) Fatal("floor burst did not end");
        std::this_thread::sleep_for(std::chrono::microseconds(200));
      }
      floorMs.push_back(static_cast<double>(NowNs() - floorStart) / 1e6);
      SleepMs(50);
    }
    const Stats lib = Summarise(libMs), floor = Summarise(floorMs);
    const double runs = static_cast<double>(options_.burstRuns);
    Line("  %-34s %9.1f %9s   %9.1f %9s   %6.2f         (ms, median of %d)", "burst of commands",
         lib.median, "", floor.median, "", Ratio(lib.median, floor.median), options_.burstRuns);
    Line("    ran %.0f, dropped as repeats %.0f (mean per burst of %d); peak threads %ld (base %ld); "
         "peak RSS growth %ld kB",
         ranTotal / runs, droppedTotal / runs, options_.burstSize, peakThreads, baseThreads, peakRssGrowth);
    const Stats accept = Summarise(burstAccept);
    Line("    caller blocked per command during the burst: median %.1f us, p99 %.1f us", accept.median,
         accept.p99);
    results_.figures["burst_accept_us_p99"] = accept.p99;
    results_.figures["burst_ms"] = lib.median;
    results_.figures["burst_floor_ms"] = floor.median;
    results_.figures["burst_ran"] = ranTotal / runs;
    results_.figures["burst_dropped"] = droppedTotal / runs;
    results_.figures["burst_peak_threads"] = static_cast<double>(peakThreads);
    results_.figures["burst_peak_rss_growth_kb"] = static_cast<double>(peakRssGrowth);
  }

  void RecoveryPhase() {
    // Watches for the retry timer's ticks while still writing every line to
    // the system log, so the library pays its default logging cost.
    struct Ticks {
      std::mutex mutex;
      std::vector<Ns> at;
    };
    auto ticks = std::make_shared<Ticks>();
    platform::SetLogSink([ticks](platform::LogBuffer buffer, platform::LogPriority priority, const char* tag,
                                 const char* text) {
      if (std::strstr(text, "Try to connect to DBus server") != nullptr) {
        const Ns now = NowNs();
        std::lock_guard<std::mutex> lock(ticks->mutex);
        ticks->at.push_back(now);
      }
      if (gTimeline != nullptr) {
        Record(tag, text);
      } else if (gTrace) {
        std::fprintf(stderr, "%.6f %s: %s\n", static_cast<double>(NowNs()) / 1e9, tag, text);
      } else {
        WriteToSystemLog(buffer, priority, tag, text);
      }
    });

    std::mt19937 random(12345);
    std::uniform_real_distribution<double> phase(0.0, 500.0);
    std::vector<double> recovery, overhead;
    for (int round = 0; round < options_.recoveryRounds; ++round) {
      library_.WaitIdle();
      control_.ReleaseName();
      const Ns released = NowNs();
      while (library_.client().IsConnected()) {
        if (NowNs() - released > 5000000000ULL) Fatal("the library did not see the name vanish");
        std::this_thread::sleep_for(std::chrono::microseconds(200));
      }
      {
        std::lock_guard<std::mutex> lock(ticks->mutex);
        ticks->at.clear();
      }
      const std::uint64_t found = libProbe_.FoundCount();
      library_.Issue(contract::kMethodStartBroadcast, 0);  // held: the daemon is away
      libConnected_ = false;
      SleepMs(phase(random));  // the daemon comes back at a random point of the retry period
      const Ns owned = control_.AcquireName();
      Probe::Event event;
      if (!libProbe_.WaitFound(found, event, 5000)) Fatal("the held command was not replayed");
      const Ns arrived = ParseNs(event.name);
      Ns tick = 0;
      {
        std::lock_guard<std::mutex> lock(ticks->mutex);
        for (Ns at : ticks->at) {
          if (at <= arrived) tick = std::max(tick, at);
        }
      }
      recovery.push_back(static_cast<double>(arrived - owned) / 1e6);
      if (tick != 0) overhead.push_back(static_cast<double>(arrived - tick) / 1e6);
      lastLibMethod_ = contract::kMethodStartBroadcast;
      library_.WaitIdle();
    }
    DefaultLog();
    const Stats rec = Summarise(recovery), over = Summarise(overhead);
    Line("  %-34s %9.1f %9.1f   max %.1f  (ms, n=%zu)", "daemon owns name -> held cmd arrives",
         rec.median, rec.p99, rec.max, rec.n);
    Line("  %-34s %9.1f %9.1f   max %.1f  (ms, n=%zu)", "  of which retry tick -> arrival", over.median,
         over.p99, over.max, over.n);
    results_.figures["recovery_ms_median"] = rec.median;
    results_.figures["recovery_ms_max"] = rec.max;
    results_.figures["recovery_overhead_ms_median"] = over.median;
    results_.figures["recovery_overhead_ms_max"] = over.max;
  }

  void LogPhase() {
    DefaultLog();
    TimeLogLines(1000);  // warm-up
    const double perLine = TimeSpacedLogLines(options_.logLines / 10);
    const double backToBack = TimeLogLines(options_.logLines);
    SilenceLog();
    const double formatOnly = TimeSpacedLogLines(options_.logLines / 10);

    // How many lines each kind of work writes.
    LineCounter counter;
    counter.Install();
    const int n = 50;
    std::uint64_t start = counter.lines;
    for (int i = 0; i < n; ++i) {
      LibRun(Other(lastLibMethod_));
    }
    SleepMs(20);
    const double perCall = static_cast<double>(counter.lines - start) / n;
    start = counter.lines;
    for (int i = 0; i < n; ++i) SignalSample(kLib);
    SleepMs(20);
    const double perSignal = static_cast<double>(counter.lines - start) / n;
    DefaultLog();

    Line("  %-34s %9.2f us (default output, median); %.2f us formatting only; %.2f us each back to back",
         "one log line", perLine, formatOnly, backToBack);
    if (options_.liveLogLine >= 0) {
      Line("  %-34s %9.2f us (median)", "one log line, journal listening", options_.liveLogLine);
      results_.figures["log_live_us_per_line"] = options_.liveLogLine;
    } else {
      Line("  %-34s %9s (no journal of our own could be set up)", "one log line, journal listening", "-");
    }
    Line("  %-34s %9.1f per command (call + echo), %.1f per signal delivered", "log lines", perCall,
         perSignal);
    results_.figures["log_us_per_line"] = perLine;
    results_.figures["log_format_us_per_line"] = formatOnly;
    results_.figures["log_back_to_back_us_per_line"] = backToBack;
    results_.figures["log_lines_per_call"] = perCall;
    results_.figures["log_lines_per_signal"] = perSignal;
  }

  void Plot() {
    if (options_.plotScript.empty() || !HasPhase(options_, "call") || !HasPhase(options_, "signal")) return;
    if (access(options_.plotScript.c_str(), R_OK) != 0) return;
    const std::string command = "gnuplot -e \"dir='" + options_.outDir + "'\" '" + options_.plotScript +
                                "' >'" + options_.outDir + "/gnuplot.log' 2>&1";
    if (std::system(command.c_str()) == 0) {
      Line("  plot: %s/latency.png", options_.outDir.c_str());
    } else {
      Line("  plot: gnuplot failed (see %s/gnuplot.log)", options_.outDir.c_str());
    }
  }

  Options options_;
  Control control_;
  Probe libProbe_;
  Probe floorProbe_;
  Floor floor_;
  Library library_;
  GObjectPtr<GDBusConnection> systemBus_;
  std::string libName_;
  std::string floorName_;
  std::string lastLibMethod_;
  bool libConnected_ = false;
  std::uint64_t idCounter_ = 0;
  Results results_;
};

std::vector<std::string> Split(const std::string& text) {
  std::vector<std::string> parts;
  std::stringstream in(text);
  for (std::string part; std::getline(in, part, ',');) {
    if (!part.empty()) parts.push_back(part);
  }
  return parts;
}

void Usage(const char* program) {
  std::printf(
      "usage: %s [options]\n"
      "Measures libzorvel against plain GDBus on a private bus with a lean daemon.\n"
      "  --out DIR            samples, plot and logs (default bench-results)\n"
      "  --phases LIST        call,signal,profiles,burst,recovery,log (default: all)\n"
      "  --samples N          call and signal samples per side (default 2000)\n"
      "  --profile-runs N     ReadProfiles runs per side (default 25)\n"
      "  --profiles N         stored profiles (default 1000, capped at 41: see the output)\n"
      "  --burst-runs N       bursts (default 3)\n"
      "  --burst-size N       commands per burst (default 1000)\n"
      "  --recovery-rounds N  daemon restarts (default 12)\n"
      "  --no-silent-pass     no third arm with the library's log silenced\n"
      "  --quick              a short run (for profiling under valgrind)\n"
      "  --trace              the library's log lines to stderr instead of the system log\n"
      "  --timeline           the library's log lines, timed, to <out>/timeline.txt instead\n"
      "  --daemon PATH, --dbus-daemon PATH, --bus-config PATH, --plot-script PATH\n"
      "The last line of the output is one JSON object with the figures.\n",
      program);
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  enum { kOut = 1000, kPhases, kSamples, kProfileRuns, kProfiles, kBurstRuns, kBurstSize, kRecovery, kNoSilent, kQuick, kTrace, kTimeline,
         kDaemon, kDbusDaemon, kBusConfig, kPlot, kHelp };
  static const option kOptions[] = {
      {"out", required_argument, nullptr, kOut},
      {"phases", required_argument, nullptr, kPhases},
      {"samples", required_argument, nullptr, kSamples},
      {"profile-runs", required_argument, nullptr, kProfileRuns},
      {"profiles", required_argument, nullptr, kProfiles},
      {"burst-runs", required_argument, nullptr, kBurstRuns},
      {"burst-size", required_argument, nullptr, kBurstSize},
      {"recovery-rounds", required_argument, nullptr, kRecovery},
      {"no-silent-pass", no_argument, nullptr, kNoSilent},
      {"quick", no_argument, nullptr, kQuick},
      {"trace", no_argument, nullptr, kTrace},
      {"timeline", no_argument, nullptr, kTimeline},
      {"daemon", required_argument, nullptr, kDaemon},
      {"dbus-daemon", required_argument, nullptr, kDbusDaemon},
      {"bus-config", required_argument, nullptr, kBusConfig},
      {"plot-script", required_argument, nullptr, kPlot},
      {"help", no_argument, nullptr, kHelp},
      {nullptr, 0, nullptr, 0}};
  for (int opt; (opt = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
    switch (opt) {
      case kOut: options.outDir = optarg; break;
      case kPhases: options.phases = Split(optarg); break;
      case kSamples: options.callSamples = options.signalSamples = std::atoi(optarg); break;
      case kProfileRuns: options.profileRuns = std::atoi(optarg); break;
      case kProfiles: options.profileCount = std::atoi(optarg); break;
      case kBurstRuns: options.burstRuns = std::atoi(optarg); break;
      case kBurstSize: options.burstSize = std::atoi(optarg); break;
      case kRecovery: options.recoveryRounds = std::atoi(optarg); break;
      case kNoSilent: options.silentPass = false; break;
      case kQuick:
        options.callSamples = options.signalSamples = 200;
        options.profileRuns = 3;
        options.burstRuns = 1;
        options.recoveryRounds = 2;
        options.logLines = 2000;
        break;
      case kTrace: gTrace = true; break;
      case kTimeline: gTimeline = new Timeline; break;
      case kDaemon: options.benchDaemon = optarg; break;
      case kDbusDaemon: options.dbusDaemon = optarg; break;
      case kBusConfig: options.busConfig = optarg; break;
      case kPlot: options.plotScript = optarg; break;
      case kHelp: Usage(argv[0]); return 0;
      default: Usage(argv[0]); return 2;
    }
  }
  if (options.callSamples < 2 || options.profileRuns < 1 || options.burstRuns < 1 || options.burstSize < 2) {
    Usage(argv[0]);
    return 2;
  }
  if (std::system(("mkdir -p '" + options.outDir + "'").c_str()) != 0) Fatal("cannot create " + options.outDir);
  char* resolved = realpath(options.outDir.c_str(), nullptr);
  if (resolved != nullptr) {
    options.outDir = resolved;
    std::free(resolved);
  }

  // Before this process starts any thread: the child it forks must be able to
  // enter namespaces of its own.
  if (HasPhase(options, "log")) options.liveLogLine = MeasureLiveJournalLine(options.logLines / 10);

  // The private bus, before anything in this process looks at the system bus.
  // Their complaints (the bus cannot raise its fd limit, say) go to a file.
  const int errFd = open((options.outDir + "/processes.log").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) Fatal("pipe2 failed");
  const pid_t bus = Spawn({options.dbusDaemon, "--config-file=" + options.busConfig, "--nofork",
                           "--print-address=" + std::to_string(fds[1]), "--address=unix:tmpdir=/tmp"},
                          errFd, fds[1]);
  close(fds[1]);
  const std::string address = ReadLine(fds[0], 20000);
  close(fds[0]);
  if (address.empty()) Fatal("dbus-daemon printed no address");
  setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);

  const pid_t daemon = Spawn({options.benchDaemon, "--address", address}, errFd);
  if (errFd >= 0) close(errFd);
  GObjectPtr<GDBusConnection> control(OpenConnection(address));
  const Ns deadline = NowNs() + 20000000000ULL;
  while (NameOwner(control.get(), "zorvel.bench").empty() ||
         NameOwner(control.get(), contract::kBusName.c_str()).empty()) {
    if (NowNs() > deadline) Fatal("the benchmark daemon did not start");
    SleepMs(10);
  }

  DefaultLog();
  GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
  std::thread loopThread([loop] { g_main_loop_run(loop); });

  char host[256] = "";
  gethostname(host, sizeof host - 1);
  std::printf("zorvel-bench on %s, %u cores; library (Launcher) vs plain GDBus, same bus and daemon\n", host,
              std::thread::hardware_concurrency());
  std::printf("  %-34s %9s %9s   %9s %9s   %6s %6s\n", "", "lib med", "lib p99", "gdbus med", "gdbus p99", "x med",
              "x p99");
  std::fflush(stdout);

  Results results;
  {
    Bench bench(options, address, control.get());
    bench.Run();
    results = bench.results();
  }  // the Launcher goes first: its destructor waits for its commands

  Control(control.get()).Quit();
  g_main_loop_quit(loop);
  loopThread.join();
  g_main_loop_unref(loop);
  int status = 0;
  waitpid(daemon, &status, 0);
  control.reset();
  Stop(bus);

  std::string json = "{";
  for (const auto& [key, value] : results.figures) {
    char item[128];
    std::snprintf(item, sizeof item, "%s\"%s\": %.5g", json.size() > 1 ? ", " : "", key.c_str(), value);
    json += item;
  }
  json += "}";
  if (gTimeline != nullptr) {
    std::ofstream out(options.outDir + "/timeline.txt");
    std::lock_guard<std::mutex> lock(gTimeline->mutex);
    for (const auto& [at, line] : gTimeline->lines) {
      char stamp[32];
      std::snprintf(stamp, sizeof stamp, "%.6f ", static_cast<double>(at) / 1e9);
      out << stamp << line << '\n';
    }
  }
  std::printf("%s\n", json.c_str());
  return 0;
}
