// What users wait for, each figure next to its floor measured in the same
// run: the least any client of the same agent, or any program on the same
// files, has to do for the same result. Floor and vel rounds alternate, and
// the ratio of each pair of rounds is kept: the noise of a shared machine
// hits both sides of a pair alike.
//
//  - remote exists/stat: a fresh hiredis connection, tarn.metadata, close;
//  - tree update/commit (syncFromServer/syncToServer of 2,000 files of 4 KiB
//    in 100 folders): the requests the agent journalled for the same call,
//    replayed one connection each (the library may not keep connections),
//    after the folders the mirror needs are made;
//  - large download/upload: cp(1) of the same file, then fsync of the copy;
//  - warm update/commit of 20 files of 50 MiB: the same of 20 files of one
//    byte (what is left when nothing is copied); ten read-opens of an
//    unchanged 100 MiB file: ten stats and ten plain reads of its copy; an
//    update after another device renamed a folder of 200 x 1 MiB: the warm
//    update of the same tree;
//  - a log line: stat of the path, the time stamp and the line formatted,
//    one write on an O_APPEND descriptor;
//  - local mode: the system calls on the same mirror paths;
//  - the agent's connection handling, against a redis-server on a Unix
//    socket (scripts/bench.sh starts one in a temporary folder and names
//    its socket with --redis): a fresh connection with tarn.metadata
//    against one with PING, by 1 and by 64 clients at once; the same on
//    connections kept open; the same by 1 client to an agent whose
//    tarn.metadata a rule answers with the same reply (the connection
//    handling without the store's work); and the memory an idle connection
//    costs each server (its resident size with 2,000 idle connections, less
//    without);
//  - with the agent's WebDAV store and Apache at hand, the tree update and
//    commit through an agent serving the tests' Apache WebDAV server: over
//    one kept-alive connection to the same server, a PROPFIND (Depth 1) of
//    each folder and a GET of each file; a MKCOL of each folder and a PUT
//    of each file;
//  - with the agent's S3 store and the Ceph packages at hand, against a
//    one-node Ceph cluster started for the run (scripts/ceph-fixture.sh):
//    the cold update of a tree of 300 files of 4 KiB in 15 folders, next to
//    a ListObjectsV2 of each folder and a GET of each file over one
//    kept-alive connection; and the upload of the large file, next to
//    curl(1) sending the same bytes in one signed PUT.
//
// Usage: vel_bench [--quick] [--only GROUP[,GROUP...]] [--agent PATH]
//                  [--redis SOCKET]
//   groups: remote, connections, tree, large, sync, log, local, webdav, s3
// The table goes to standard output, progress to standard error. Files go
// below $TMPDIR (else /tmp); on a tmpfs the tree rows leave out the disk.
#include <curl/curl.h>
#include <dirent.h>
#include <fcntl.h>
#include <hiredis/hiredis.h>
#include <json/json.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench_support.h"
#include "support/ceph_cluster.h"
#include "support/s3_client.h"
#include "support/webdav_server.h"
#include "vel/fstream.h"
#include "vel/hooks.h"
#include "vel/instance.h"
#include "vel/listing.h"
#include "vel/log.h"
#include "vel/mutations.h"
#include "vel/query.h"

namespace {

using Clock = std::chrono::steady_clock;
using velbench::Agent;
using velbench::fail;
using velbench::makeDir;
using velbench::makeFile;
using velbench::median;
using velbench::quantile;
using velbench::removeTree;

constexpr int kFolders = 100;
constexpr int kFilesPerFolder = 20;
constexpr size_t kSmallFile = 4096;
constexpr int kLocalFiles = 10;

struct Options {
  bool quick = false;
  std::set<std::string> only;
  std::string agent = VEL_AGENT_BIN;
  std::string redis;  // a redis-server's socket, for the connection rows
};

struct Row {
  Row(std::string what_, std::string floor_, double target_)
      : what(std::move(what_)), floor(std::move(floor_)), target(target_) {}

  std::string what;
  std::string floor;  // what the floor does
  double target;
  double vel = 0;  // seconds per operation (medians)
  double base = 0;
  double ratio = 0;  // median of the per-round ratios
  double low = 0;    // their first and third quartiles
  double high = 0;
  int rounds = 0;
  std::string note;    // instead of figures
  bool bytes = false;  // vel and floor are bytes, and the target is vel's own bound in bytes
};

FILE* g_out = stdout;  // the real standard output; fd 1 goes to /dev/null
std::vector<Row> g_rows;

double seconds(Clock::time_point since) {
  return std::chrono::duration<double>(Clock::now() - since).count();
}

void progress(const std::string& what) { std::fprintf(stderr, "vel_bench: %s\n", what.c_str()); }

std::string loadAverage() {
  std::ifstream in("/proc/loadavg");
  std::string one, five, fifteen;
  in >> one >> five >> fifteen;
  return one + " " + five + " " + fifteen;
}

std::string folderName(int folder) {
  char name[16];
  std::snprintf(name, sizeof name, "d%03d", folder);
  return name;
}

// 2,000 files of 4 KiB in 100 folders below `root`.
void makeTree(const std::string& root, unsigned long long seed) {
  makeDir(root);
  for (int d = 0; d < kFolders; ++d) {
    const std::string folder = root + "/" + folderName(d);
    makeDir(folder);
    for (int f = 0; f < kFilesPerFolder; ++f) {
      char name[16];
      std::snprintf(name, sizeof name, "/f%04d", d * kFilesPerFolder + f);
      makeFile(folder + name, kSmallFile, seed + static_cast<unsigned long long>(d * 1000 + f));
    }
  }
}

// Interleaved rounds, floor and vel in turn (each first in every other
// round); each callback runs one round and returns seconds per operation.
// The ratio is the median of the per-round ratios: paired rounds cancel the
// load that other work puts on the machine while they run.
void measure(Row row, int rounds, const std::function<double()>& floorRound,
             const std::function<double()>& velRound) {
  progress("measuring " + row.what);
  std::vector<double> base;
  std::vector<double> vel;
  std::vector<double> ratios;
  for (int i = 0; i < rounds; ++i) {
    double f = 0;
    double v = 0;
    if (i % 2 == 0) {
      f = floorRound();
      v = velRound();
    } else {
      v = velRound();
      f = floorRound();
    }
    base.push_back(f);
    vel.push_back(v);
    ratios.push_back(v / f);
  }
  row.base = median(base);
  row.vel = median(vel);
  row.ratio = median(ratios);
  row.low = quantile(ratios, 0.25);
  row.high = quantile(ratios, 0.75);
  row.rounds = rounds;
  g_rows.push_back(row);
}

template <typename F>
double perOp(int n, F&& op) {
  const Clock::time_point start = Clock::now();
  for (int i = 0; i < n; ++i) {
    op(i);
  }
  return seconds(start) / n;
}

// Bytes of the journal so far: requests after this mark are the next call's.
long long journalMark(const Agent& agent) {
  struct stat st;
  return ::stat(agent.journal().c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : 0;
}

// The requests journalled since `from`, each as its arguments.
std::vector<std::vector<std::string>> requestsSince(const Agent& agent, long long from) {
  std::ifstream in(agent.journal());
  in.seekg(from);
  std::vector<std::vector<std::string>> requests;
  Json::CharReaderBuilder builder;
  for (std::string line; std::getline(in, line);) {
    Json::Value args;
    std::string errors;
    std::istringstream text(line);
    if (!Json::parseFromStream(builder, text, &args, &errors) || !args.isArray()) {
      fail("unreadable journal line: " + line);
    }
    std::vector<std::string> request;
    for (const Json::Value& arg : args) {
      request.push_back(arg.asString());
    }
    requests.push_back(request);
  }
  return requests;
}

// One request on a connection of its own, as the library sends it.
bool oneRequest(const std::string& socket, const std::vector<std::string>& args) {
  redisContext* c = redisConnectUnix(socket.c_str());
  if (c == nullptr || c->err != 0) {
    redisFree(c);
    return false;
  }
  std::vector<const char*> argv;
  std::vector<size_t> lengths;
  for (const std::string& arg : args) {
    argv.push_back(arg.data());
    lengths.push_back(arg.size());
  }
  auto* reply = static_cast<redisReply*>(
      redisCommandArgv(c, static_cast<int>(argv.size()), argv.data(), lengths.data()));
  const bool answered = reply != nullptr;
  freeReplyObject(reply);
  redisFree(c);
  return answered;
}

double replay(const std::string& socket, const std::vector<std::vector<std::string>>& requests) {
  const Clock::time_point start = Clock::now();
  for (const std::vector<std::string>& request : requests) {
    if (!oneRequest(socket, request)) {
      fail("a replayed request got no reply");
    }
  }
  return seconds(start);
}

// cp(1), then fsync of the copy: what the agent's atomic copy amounts to.
double copyAndFlush(const std::string& from, const std::string& to) {
  ::unlink(to.c_str());
  const Clock::time_point start = Clock::now();
  if (!velbench::run({"cp", from, to})) {
    fail("cp " + from + " failed");
  }
  int fd = ::open(to.c_str(), O_RDONLY);
  if (fd < 0 || ::fsync(fd) != 0) {
    fail("cannot flush " + to);
  }
  ::close(fd);
  return seconds(start);
}

void remoteRows(const Options& options, const Agent& agent) {
  const std::string path = "tree/d042/f0842";
  const int n = 20;
  const int rounds = options.quick ? 41 : 201;
  auto bare = [&](int) {
    redisContext* c = redisConnectUnix(agent.socket().c_str());
    if (c == nullptr || c->err != 0) {
      fail("cannot connect to the agent");
    }
    freeReplyObject(redisCommand(c, "tarn.metadata %s %s", "TestService", path.c_str()));
    redisFree(c);
  };
  if (VEL::exists(path.c_str()) != 1) {
    fail("remote exists does not find " + path);
  }
  measure(
      {"remote exists", "connect + tarn.metadata + close", 1.1}, rounds,
      [&] { return perOp(n, bare); },
      [&] { return perOp(n, [&](int) { VEL::exists(path.c_str()); }); });
  struct stat st;
  measure(
      {"remote stat", "connect + tarn.metadata + close", 1.1}, rounds,
      [&] { return perOp(n, bare); },
      [&] { return perOp(n, [&](int) { VEL::stat(path.c_str(), &st); }); });
}

// ---- the agent's connection handling, against redis-server ----

const char kMetadataPath[] = "tree/d042/f0842";

redisContext* connectTo(const std::string& socket) {
  redisContext* c = redisConnectUnix(socket.c_str());
  if (c == nullptr || c->err != 0) {
    fail("cannot connect to " + socket + (c != nullptr ? std::string(": ") + c->errstr : ""));
  }
  return c;
}

using Request = void (*)(redisContext*);

void metadataRequest(redisContext* c) {
  redisReply* reply = static_cast<redisReply*>(
      redisCommand(c, "tarn.metadata %s %s", "TestService", kMetadataPath));
  if (reply == nullptr || reply->type != REDIS_REPLY_STRING) {
    fail("tarn.metadata got no answer");
  }
  freeReplyObject(reply);
}

void pingRequest(redisContext* c) {
  redisReply* reply = static_cast<redisReply*>(redisCommand(c, "PING"));
  if (reply == nullptr || reply->type != REDIS_REPLY_STATUS) {
    fail("PING got no answer");
  }
  freeReplyObject(reply);
}

// Seconds per request while `clients` threads each make `perClient`
// requests at once: each on a connection of its own (`fresh`: connect,
// request, close), or all on one connection per thread opened beforehand.
// Only the requests are timed, from the moment every thread is ready.
double clientsRound(const std::string& socket, Request request, int clients, int perClient,
                    bool fresh) {
  std::mutex mutex;
  std::condition_variable cv;
  int ready = 0;
  bool go = false;
  std::vector<std::thread> threads;
  for (int i = 0; i < clients; ++i) {
    threads.emplace_back([&] {
      redisContext* kept = fresh ? nullptr : connectTo(socket);
      {
        std::unique_lock<std::mutex> lock(mutex);
        ++ready;
        cv.notify_all();
        cv.wait(lock, [&] { return go; });
      }
      for (int k = 0; k < perClient; ++k) {
        if (fresh) {
          redisContext* c = connectTo(socket);
          request(c);
          redisFree(c);
        } else {
          request(kept);
        }
      }
      redisFree(kept);
    });
  }
  Clock::time_point start;
  {
    std::unique_lock<std::mutex> lock(mutex);
    cv.wait(lock, [&] { return ready == clients; });
    start = Clock::now();
    go = true;
  }
  cv.notify_all();
  for (std::thread& thread : threads) {
    thread.join();
  }
  return seconds(start) / (clients * perClient);
}

long long residentKiB(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(in, line);) {
    if (line.compare(0, 6, "VmRSS:") == 0) {
      return std::atoll(line.c_str() + 6);
    }
  }
  fail("no VmRSS for process " + std::to_string(pid));
}

size_t openFiles(pid_t pid) {
  size_t count = 0;
  std::error_code error;
  for (std::filesystem::directory_iterator it("/proc/" + std::to_string(pid) + "/fd", error), end;
       !error && it != end; it.increment(error)) {
    ++count;
  }
  return count;
}

// Waits until the server `pid` holds `files` descriptors, give or take
// two (one it may open or close of its own).
void awaitFiles(pid_t pid, size_t files, const std::string& what) {
  const auto near = [&] {
    const size_t now = openFiles(pid);
    return now + 2 >= files && now <= files + 2;
  };
  for (const auto until = Clock::now() + std::chrono::seconds(30); !near();) {
    if (Clock::now() > until) {
      fail(what + ": " + std::to_string(openFiles(pid)) + " descriptors, expected " +
           std::to_string(files));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

// The bytes of resident memory one more idle connection costs the server
// `pid` listening on `socket`: its growth while `count` connections that
// sent nothing are open, once it holds all of them, divided by `count`.
double idleConnectionBytes(const std::string& socket, pid_t pid, int count) {
  std::this_thread::sleep_for(std::chrono::milliseconds(200));  // earlier clients are gone
  const size_t baseFiles = openFiles(pid);
  const long long baseKiB = residentKiB(pid);
  std::vector<int> fds;
  struct sockaddr_un addr;
  std::memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, socket.c_str(), sizeof addr.sun_path - 1);
  for (int i = 0; i < count; ++i) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || ::connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0) {
      fail("idle connection " + std::to_string(i) + " to " + socket + ": " + std::strerror(errno));
    }
    fds.push_back(fd);
  }
  awaitFiles(pid, baseFiles + fds.size(), "idle connections to " + socket);
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  const long long grownKiB = residentKiB(pid) - baseKiB;
  for (int fd : fds) {
    ::close(fd);
  }
  awaitFiles(pid, baseFiles, "closing the idle connections to " + socket);
  return static_cast<double>(grownKiB) * 1024.0 / count;
}

pid_t redisPid(const std::string& socket) {
  redisContext* c = connectTo(socket);
  redisReply* reply = static_cast<redisReply*>(redisCommand(c, "INFO server"));
  pid_t pid = -1;
  if (reply != nullptr && reply->type == REDIS_REPLY_STRING) {
    const char* at = std::strstr(reply->str, "process_id:");
    pid = at != nullptr ? static_cast<pid_t>(std::atol(at + 11)) : -1;
  }
  freeReplyObject(reply);
  redisFree(c);
  if (pid <= 0) {
    fail("redis-server does not say its process id");
  }
  return pid;
}

void connectionRows(const Options& options, const std::string& dir) {
  const char* rows[] = {"idle connection memory",     "fresh metadata, 1 client",
                        "fresh metadata, 64 clients", "kept metadata, 1 client",
                        "kept metadata, 64 clients",  "fresh rule reply, 1 client",
                        "kept rule reply, 1 client"};
  if (options.redis.empty()) {
    for (const char* what : rows) {
      Row row(what, "", 0);
      row.note = "no redis-server to compare with (scripts/bench.sh starts one)";
      g_rows.push_back(row);
    }
    return;
  }
  // An agent of its own: the records of connections are reused, never
  // freed, so the memory of idle connections is measured on the first ones.
  Agent agent(options.agent, dir + "/mirror", dir + "/uds-connections",
              {"--store", dir + "/store"});
  // One more whose tarn.metadata is answered by a rule with the same reply,
  // without the store: the connection handling alone.
  const std::string rules = dir + "/uds-connections/rules.json";
  {
    redisContext* c = connectTo(agent.socket());
    redisReply* meta = static_cast<redisReply*>(
        redisCommand(c, "tarn.metadata %s %s", "TestService", kMetadataPath));
    Json::Value rule(Json::objectValue);
    rule["match"].append("tarn.metadata");
    rule["reply"].append("bulk");
    rule["reply"].append(std::string(meta->str, meta->len));
    Json::Value list(Json::arrayValue);
    list.append(rule);
    std::ofstream(rules) << Json::writeString(Json::StreamWriterBuilder(), list);
    freeReplyObject(meta);
    redisFree(c);
  }
  Agent ruled(options.agent, dir + "/mirror", dir + "/uds-ruled",
              {"--store", dir + "/store", "--rules", rules});
  const pid_t redis = redisPid(options.redis);
  const int idle = 2000;
  {
    Row row(rows[0], "the same in redis-server", 2048);
    row.bytes = true;
    row.base = idleConnectionBytes(options.redis, redis, idle);
    row.vel = idleConnectionBytes(agent.socket(), agent.pid(), idle);
    row.ratio = row.low = row.high = row.vel / row.base;
    row.rounds = 1;
    g_rows.push_back(row);
  }
  struct Load {
    const char* what;
    const char* floor;
    double target;
    int clients;
    int perClient;
    bool fresh;
    const Agent& agent;
  };
  const Load loads[] = {
      {rows[1], "connect + PING + close", 1.3, 1, 100, true, agent},
      {rows[2], "connect + PING + close", 1.3, 64, 10, true, agent},
      {rows[3], "PING on a kept connection", 1.0, 1, 400, false, agent},
      {rows[4], "PING on a kept connection", 1.0, 64, 40, false, agent},
      {rows[5], "connect + PING + close", 1.3, 1, 100, true, ruled},
      {rows[6], "PING on a kept connection", 1.0, 1, 400, false, ruled},
  };
  for (const Load& load : loads) {
    // The rounds of one client are short: more of them even out the noise.
    const int rounds = options.quick ? 11 : (load.clients == 1 ? 81 : 41);
    measure(
        {load.what, load.floor, load.target}, rounds,
        [&] {
          return clientsRound(options.redis, pingRequest, load.clients, load.perClient, load.fresh);
        },
        [&] {
          return clientsRound(load.agent.socket(), metadataRequest, load.clients, load.perClient,
                              load.fresh);
        });
  }
}

void treeRows(const Options& options, const std::string& dir, const Agent& agent) {
  const int rounds = options.quick ? 3 : 15;
  const std::string mirrorTree = dir + "/mirror/tree";
  const std::string storeUp = dir + "/store/up";
  const size_t files = static_cast<size_t>(kFolders * kFilesPerFolder);

  // A first update records what the agent is asked for.
  removeTree(mirrorTree);
  long long mark = journalMark(agent);
  if (VEL::syncFromServer("tree", true) != 0 || velbench::filesBelow(mirrorTree) != files) {
    fail("the tree update did not bring every file");
  }
  const auto pulls = requestsSince(agent, mark);
  measure(
      {"tree update (syncFromServer)", "journal replay + mkdir", 1.1}, rounds,
      [&] {
        removeTree(mirrorTree);
        agent.forget();
        const Clock::time_point start = Clock::now();
        makeDir(mirrorTree);
        for (int d = 0; d < kFolders; ++d) {
          makeDir(mirrorTree + "/" + folderName(d));
        }
        replay(agent.socket(), pulls);
        return seconds(start);
      },
      [&] {
        removeTree(mirrorTree);
        agent.forget();
        const Clock::time_point start = Clock::now();
        if (VEL::syncFromServer("tree", true) != 0) {
          fail("tree update failed");
        }
        return seconds(start);
      });

  removeTree(storeUp);
  agent.forget();
  mark = journalMark(agent);
  if (VEL::syncToServer("up", true) != 0 || velbench::filesBelow(storeUp) != files) {
    fail("the tree commit did not send every file");
  }
  const auto pushes = requestsSince(agent, mark);
  measure(
      {"tree commit (syncToServer)", "journal replay", 1.1}, rounds,
      [&] {
        removeTree(storeUp);
        agent.forget();
        return replay(agent.socket(), pushes);
      },
      [&] {
        removeTree(storeUp);
        agent.forget();
        const Clock::time_point start = Clock::now();
        if (VEL::syncToServer("up", true) != 0) {
          fail("tree commit failed");
        }
        return seconds(start);
      });
}

void largeRows(const Options& options, const std::string& dir, size_t mib, const Agent& agent) {
  const int rounds = options.quick ? 3 : 5;
  const std::string copy = dir + "/floor/copy";
  const std::string down = dir + "/mirror/big";
  const std::string up = dir + "/store/bigup";
  const std::string what = std::to_string(mib) + " MiB ";
  measure(
      {what + "download", "cp + fsync", 1.2}, rounds,
      [&] { return copyAndFlush(dir + "/store/big", copy); },
      [&] {
        ::unlink(down.c_str());
        agent.forget();
        const Clock::time_point start = Clock::now();
        if (VEL::syncFromServer("big", false) != 0) {
          fail("download failed");
        }
        return seconds(start);
      });
  measure(
      {what + "upload", "cp + fsync", 1.2}, rounds,
      [&] { return copyAndFlush(dir + "/mirror/bigup", copy); },
      [&] {
        ::unlink(up.c_str());
        agent.forget();
        const Clock::time_point start = Clock::now();
        if (VEL::syncToServer("bigup", false) != 0) {
          fail("upload failed");
        }
        return seconds(start);
      });
  ::unlink(copy.c_str());
}

void logRow(const Options& options, const std::string& dir) {
  const int n = 500;
  const int rounds = options.quick ? 21 : 101;
  const std::string path = dir + "/floor/raw.log";
  int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT, 0666);
  if (fd < 0) {
    fail("cannot open " + path);
  }
  VEL::LogInterface* logger = VEL::getLogger();
  measure(
      {"log line", "stat + format + write(O_APPEND)", 1.2}, rounds,
      [&] {
        return perOp(n, [&](int i) {
          struct stat st;
          ::stat(path.c_str(), &st);
          const time_t now = std::time(nullptr);
          struct tm local;
          localtime_r(&now, &local);
          char stamp[32];
          std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
          char line[128];
          const int len =
              std::snprintf(line, sizeof line, "%s %s [VEL] bench line %d\n", stamp, "ERROR", i);
          if (::write(fd, line, static_cast<size_t>(len)) != len) {
            fail("cannot write " + path);
          }
        });
      },
      [&] { return perOp(n, [&](int i) { logger->log(1, "[VEL] bench line %d", i); }); });
  ::close(fd);
}

void localRows(const Options& options, const std::string& dir) {
  VEL::finish();
  VEL::init({{"clientType", "Local"}});
  if (VEL::getInstance() == nullptr || VEL::getInstance()->isLocalOnly() == 0) {
    fail("no local back-end");
  }
  const int n = 200;
  const int rounds = options.quick ? 41 : 201;
  const std::string folder = "local/d07";
  const std::string file = folder + "/f07";
  const std::string mirrorFolder = dir + "/mirror/" + folder;
  const std::string mirrorFile = dir + "/mirror/" + file;
  struct stat st;
  measure(
      {"local stat", "stat", 1.1}, rounds,
      [&] { return perOp(n, [&](int) { ::stat(mirrorFile.c_str(), &st); }); },
      [&] { return perOp(n, [&](int) { VEL::stat(file.c_str(), &st); }); });
  measure(
      {"local exists", "access(F_OK)", 1.1}, rounds,
      [&] { return perOp(n, [&](int) { ::access(mirrorFile.c_str(), F_OK); }); },
      [&] { return perOp(n, [&](int) { VEL::exists(file.c_str()); }); });
  measure(
      {"local fopen+fclose", "fopen + fclose", 1.1}, rounds,
      [&] {
        return perOp(n, [&](int) {
          FILE* f = std::fopen(mirrorFile.c_str(), "r");
          if (f == nullptr) {
            fail("cannot open " + mirrorFile);
          }
          std::fclose(f);
        });
      },
      [&] {
        return perOp(n, [&](int) {
          FILE* f = VEL::fopen(file.c_str(), "r");
          if (f == nullptr) {
            fail("VEL::fopen failed");
          }
          VEL::fclose(f);
        });
      });
  // readdir_r is deprecated in glibc, but it is what is compared.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
  measure(
      {"local opendir+readdir_r", "opendir + readdir_r + closedir", 1.1}, rounds,
      [&] {
        return perOp(n, [&](int) {
          DIR* d = ::opendir(mirrorFolder.c_str());
          struct dirent entry;
          struct dirent* result = nullptr;
          while (::readdir_r(d, &entry, &result) == 0 && result != nullptr) {
          }
          ::closedir(d);
        });
      },
      [&] {
        return perOp(n, [&](int) {
          VEL::VEL_DIR* d = VEL::opendir(folder.c_str());
          struct dirent entry;
          struct dirent* result = nullptr;
          while (VEL::readdir_r(d, &entry, &result) == 0 && result != nullptr) {
          }
          VEL::closedir(d);
        });
      });
#pragma GCC diagnostic pop
}

// Which file each path below `root` is (inode and modification time): a
// copy put in place is a new file with a new time.
std::map<std::string, std::string> filesAt(const std::string& root) {
  std::map<std::string, std::string> out;
  std::error_code error;
  for (std::filesystem::recursive_directory_iterator it(root, error), end; !error && it != end;
       it.increment(error)) {
    struct stat st;
    if (it->is_regular_file() && ::stat(it->path().c_str(), &st) == 0) {
      out[it->path().string()] = std::to_string(st.st_ino) + "@" +
                                 std::to_string(st.st_mtim.tv_sec) + "." +
                                 std::to_string(st.st_mtim.tv_nsec);
    }
  }
  return out;
}

// The same, keyed by the path below `root`.
std::map<std::string, std::string> filesIn(const std::string& root) {
  std::map<std::string, std::string> out;
  for (const auto& file : filesAt(root)) {
    out[file.first.substr(root.size())] = file.second;
  }
  return out;
}

bool pathExists(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0;
}

// Lines printed under the table: what the rows above also proved.
std::vector<std::string> g_checks;

// The library working for the agent on `uds` with the mirror `mirror`.
void useDevice(const std::string& mirror, const std::string& uds) {
  VEL::finish();
  ::setenv("TARN_ROOT_DIR", mirror.c_str(), 1);
  ::setenv("UDS_ROOT_OSSUSER", uds.c_str(), 1);
  VEL::init({{"clientType", "Tavora"}});
}

// What the sync record saves: warm updates and commits whose cost does not
// depend on the size of the files, read-opens of an unchanged file that
// copy nothing, and a folder renamed on one device arriving at another as
// a rename.
void syncRows(const Options& options, const std::string& dir) {
  const int rounds = options.quick ? 5 : 15;
  const int bigFiles = 20;
  const size_t bigMiB = options.quick ? 8 : 50;
  for (int i = 0; i < bigFiles; ++i) {
    const std::string name = "/f" + std::to_string(i);
    makeDir(dir + "/store/warm-big");
    makeDir(dir + "/store/warm-small");
    makeFile(dir + "/store/warm-big" + name, bigMiB << 20, 77 + static_cast<unsigned>(i));
    makeFile(dir + "/store/warm-small" + name, 1, 99 + static_cast<unsigned>(i));
  }
  // Warm means synced a while ago: a version read within a second or two of
  // its change is checked by its content until it settles.
  std::this_thread::sleep_for(std::chrono::milliseconds(2100));
  if (VEL::syncFromServer("warm-big", true) != 0 || VEL::syncFromServer("warm-small", true) != 0) {
    fail("the first update of the warm trees failed");
  }
  auto timed = [](const std::function<int32_t()>& call, const char* what) {
    const Clock::time_point start = Clock::now();
    if (call() != 0) {
      fail(what);
    }
    return seconds(start);
  };
  std::map<std::string, std::string> before = filesAt(dir + "/mirror/warm-big");
  measure(
      {"warm update, 20 x " + std::to_string(bigMiB) + " MiB", "the same of 20 x 1 byte", 1.2},
      rounds,
      [&] { return timed([] { return VEL::syncFromServer("warm-small", true); }, "update"); },
      [&] { return timed([] { return VEL::syncFromServer("warm-big", true); }, "update"); });
  if (filesAt(dir + "/mirror/warm-big") != before) {
    fail("a warm update wrote to the mirror");
  }
  g_checks.push_back(
      "warm update: 0 bytes written to the mirror (every file kept its inode and time)");

  // The same files committed: sent once, then never again.
  if (VEL::syncToServer("warm-big", true) != 0 || VEL::syncToServer("warm-small", true) != 0) {
    fail("the first commit of the warm trees failed");
  }
  before = filesAt(dir + "/store/warm-big");
  measure(
      {"warm commit, 20 x " + std::to_string(bigMiB) + " MiB", "the same of 20 x 1 byte", 1.2},
      rounds, [&] { return timed([] { return VEL::syncToServer("warm-small", true); }, "commit"); },
      [&] { return timed([] { return VEL::syncToServer("warm-big", true); }, "commit"); });
  if (filesAt(dir + "/store/warm-big") != before) {
    fail("a warm commit wrote to the service");
  }
  g_checks.push_back(
      "warm commit: 0 bytes written to the service (every file kept its inode and time)");

  // Ten read-opens of an unchanged file against ten stats and ten plain
  // reads of its mirror copy.
  const size_t readMiB = options.quick ? 16 : 100;
  makeFile(dir + "/store/read-big", readMiB << 20, 4242);
  std::this_thread::sleep_for(std::chrono::milliseconds(2100));
  if (VEL::syncFromServer("read-big", false) != 0) {
    fail("cannot bring read-big");
  }
  const std::string mirrorCopy = dir + "/mirror/read-big";
  std::vector<char> buffer(1 << 20);
  auto readAll = [&](std::istream& in) {
    size_t got = 0;
    while (in.read(buffer.data(), static_cast<std::streamsize>(buffer.size())) || in.gcount() > 0) {
      got += static_cast<size_t>(in.gcount());
    }
    if (got != readMiB << 20) {
      fail("a read of read-big came short");
    }
  };
  measure(
      {"10 read-opens, " + std::to_string(readMiB) + " MiB", "10 x (VEL::stat + plain read)", 1.3},
      rounds,
      [&] {
        const Clock::time_point start = Clock::now();
        for (int i = 0; i < 10; ++i) {
          struct stat st;
          if (VEL::stat("read-big", &st) != 0) {
            fail("VEL::stat of read-big failed");
          }
          std::ifstream in(mirrorCopy, std::ios::binary);
          readAll(in);
        }
        return seconds(start);
      },
      [&] {
        const Clock::time_point start = Clock::now();
        for (int i = 0; i < 10; ++i) {
          VEL::ifstream in("read-big", std::ios::binary);
          readAll(in);
        }
        return seconds(start);
      });

  // A folder of 200 x 1 MiB renamed on device A; device B's update of the
  // parent against its warm update of the same, unchanged tree. B updates
  // two seconds after the rename, as another device would: within that
  // time of a change a version is checked by its content.
  const std::string aMirror = dir + "/mirror";
  const std::string bMirror = dir + "/mirror-b";
  const std::string aUds = ::getenv("UDS_ROOT_OSSUSER");
  makeDir(dir + "/store/moving");
  makeDir(dir + "/store/moving/s");
  for (int i = 0; i < 200; ++i) {
    makeFile(dir + "/store/moving/s/f" + std::to_string(i), 1 << 20,
             1000 + static_cast<unsigned>(i));
  }
  {
    Agent b(options.agent, bMirror, dir + "/uds-b", {"--store", dir + "/store"});
    useDevice(bMirror, dir + "/uds-b");
    if (VEL::syncFromServer("moving", true) != 0) {
      fail("B's first update of moving failed");
    }
    useDevice(aMirror, aUds);
    if (VEL::syncFromServer("moving", true) != 0) {
      fail("A's first update of moving failed");
    }
    std::string oldName = "s";
    std::string newName = "t";
    int moved = 0;
    int renamed = 0;
    measure(
        {"update after a folder rename", "warm update of the same tree", 1.2},
        options.quick ? 3 : 7,
        [&] {
          useDevice(bMirror, dir + "/uds-b");
          return timed([] { return VEL::syncFromServer("moving", true); }, "B's warm update");
        },
        [&] {
          useDevice(aMirror, aUds);
          if (VEL::rename(("moving/" + oldName).c_str(), ("moving/" + newName).c_str()) != 0) {
            fail("A's rename of moving/" + oldName + " failed");
          }
          std::this_thread::sleep_for(std::chrono::milliseconds(2100));
          useDevice(bMirror, dir + "/uds-b");
          const std::map<std::string, std::string> held = filesIn(bMirror + "/moving/" + oldName);
          const double spent =
              timed([] { return VEL::syncFromServer("moving", true); }, "B's update");
          const std::map<std::string, std::string> now = filesIn(bMirror + "/moving/" + newName);
          if (now.size() != held.size() || pathExists(bMirror + "/moving/" + oldName)) {
            fail("B's mirror did not follow the rename");
          }
          for (const auto& file : held) {
            auto it = now.find(file.first);
            moved += it != now.end() && it->second == file.second ? 1 : 0;
          }
          renamed += static_cast<int>(held.size());
          std::swap(oldName, newName);
          return spent;
        });
    g_checks.push_back("update after a folder rename: " + std::to_string(moved) + " of " +
                       std::to_string(renamed) +
                       " files arrived as the same mirror file, moved, not fetched again");
    useDevice(aMirror, aUds);
  }
}

bool agentHasWebdav(const std::string& agent) {
  return veltest::runProcess({agent, "--help"}).out.find("--webdav") != std::string::npos;
}

// The tree update and commit through an agent serving the tests' Apache
// WebDAV server, each next to the least a client asks the server for.
void webdavRows(const Options& options, const std::string& dir) {
  Row update("WebDAV update", "keep-alive PROPFIND/folder + GET", 1.5);
  Row commit("WebDAV commit", "keep-alive MKCOL/folder + PUT", 1.5);
  std::string why;
  if (!agentHasWebdav(options.agent)) {
    update.note = commit.note = "no WebDAV store in this build";
  } else if (!veltest::WebDavServer::available(why)) {
    update.note = commit.note = "no WebDAV server here: " + why;
  }
  if (!update.note.empty()) {
    g_rows.push_back(update);
    g_rows.push_back(commit);
    return;
  }
  const std::string docroot = dir + "/webdav";
  makeDir(docroot);
  makeTree(docroot + "/wtree", 500000);
  makeTree(dir + "/mirror/wup", 700000);
  std::vector<std::string> pulled;
  std::vector<std::string> pushed;
  for (int d = 0; d < kFolders; ++d) {
    for (int f = 0; f < kFilesPerFolder; ++f) {
      char name[32];
      std::snprintf(name, sizeof name, "/%s/f%04d", folderName(d).c_str(), d * kFilesPerFolder + f);
      pulled.push_back(std::string("wtree") + name);
      pushed.push_back(std::string("wup") + name);
    }
  }
  const std::string content(kSmallFile, 'c');
  curl_global_init(CURL_GLOBAL_DEFAULT);
  {
    veltest::WebDavServer server(docroot, dir + "/httpd");
    if (!server.ready()) {
      fail("the WebDAV server did not start: " + server.error());
    }
    Agent agent(options.agent, dir + "/mirror", dir + "/uds-webdav", {"--webdav", server.url()});
    const std::string folderUds = ::getenv("UDS_ROOT_OSSUSER");
    ::setenv("UDS_ROOT_OSSUSER", (dir + "/uds-webdav").c_str(), 1);
    const std::string mirrorTree = dir + "/mirror/wtree";
    // Every round is a first sync: cold copies, none skipped.
    auto pull = [&] {
      removeTree(mirrorTree);
      agent.forget();
      const Clock::time_point start = Clock::now();
      if (VEL::syncFromServer("wtree", true) != 0) {
        fail("WebDAV tree update failed");
      }
      return seconds(start);
    };
    auto push = [&] {
      removeTree(docroot + "/wup");
      agent.forget();
      const Clock::time_point start = Clock::now();
      if (VEL::syncToServer("wup", true) != 0) {
        fail("WebDAV tree commit failed");
      }
      return seconds(start);
    };
    pull();
    push();
    if (velbench::filesBelow(mirrorTree) != pulled.size() ||
        velbench::filesBelow(docroot + "/wup") != pushed.size()) {
      fail("the WebDAV tree update or commit did not move every file");
    }
    CURL* curl = curl_easy_init();
    measure(
        update, options.quick ? 3 : 7,
        [&] {
          const Clock::time_point start = Clock::now();
          velbench::davFloor(curl, server.url(), "wtree", pulled, kSmallFile);
          return seconds(start);
        },
        pull);
    measure(
        commit, options.quick ? 3 : 7,
        [&] {
          removeTree(docroot + "/wup");
          const Clock::time_point start = Clock::now();
          velbench::davPushFloor(curl, server.url(), "wup", pushed, content);
          return seconds(start);
        },
        push);
    curl_easy_cleanup(curl);
    ::setenv("UDS_ROOT_OSSUSER", folderUds.c_str(), 1);
  }
  curl_global_cleanup();
}

// The tree update and the large upload through an agent serving a prefix of
// a bucket on a Ceph cluster of the run's own.
void s3Rows(const Options& options, const std::string& dir, size_t mib) {
  Row update("S3 update", "keep-alive ListObjectsV2 + GET loop", 1.5);
  Row upload(std::to_string(mib) + " MiB S3 upload", "curl: one signed PUT", 1.2);
  std::string why;
  veltest::S3Service service;
  const std::string cluster = dir + "/ceph";
  if (veltest::runProcess({options.agent, "--help"}).out.find("--s3") == std::string::npos) {
    why = "no S3 store in this build";
  } else if (!veltest::startCluster(cluster, service, why)) {
    why = "no Ceph cluster here: " + why;
  }
  if (!why.empty()) {
    update.note = why;
    upload.note = why;
    g_rows.push_back(update);
    g_rows.push_back(upload);
    veltest::stopCluster(cluster);
    return;
  }
  curl_global_init(CURL_GLOBAL_DEFAULT);
  {
    // The tree: 15 folders of 20 files, put by the tests' own client.
    const std::string prefix = "bench/";
    veltest::S3Client client(service, prefix);
    constexpr int kS3Folders = 15;
    std::vector<std::pair<std::string, std::vector<std::string>>> tree;
    for (int d = 0; d < kS3Folders; ++d) {
      const std::string folder = "s3tree/" + folderName(d);
      client.put(folder + "/", "");
      tree.push_back({folder, {}});
      for (int f = 0; f < kFilesPerFolder; ++f) {
        char name[16];
        std::snprintf(name, sizeof name, "/f%04d", d * kFilesPerFolder + f);
        const std::string path = dir + "/floor/s3file";
        makeFile(path, kSmallFile, 700000ULL + static_cast<unsigned long long>(d * 100 + f));
        std::ifstream in(path, std::ios::binary);
        std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        if (client.put(folder + name, bytes).status != 200) {
          fail("cannot put the S3 tree");
        }
        tree.back().second.push_back(folder + name);
      }
    }
    client.put("s3tree/", "");
    for (const auto& [name, value] : service.env()) {
      if (value != veltest::kUnset) ::setenv(name.c_str(), value.c_str(), 1);
    }
    Agent agent(options.agent, dir + "/mirror", dir + "/uds-s3", {"--s3", service.url(prefix)});
    const std::string folderUds = ::getenv("UDS_ROOT_OSSUSER");
    ::setenv("UDS_ROOT_OSSUSER", (dir + "/uds-s3").c_str(), 1);
    const std::string mirrorTree = dir + "/mirror/s3tree";
    auto pull = [&] {
      removeTree(mirrorTree);
      agent.forget();
      const Clock::time_point start = Clock::now();
      if (VEL::syncFromServer("s3tree", true) != 0) {
        fail("S3 tree update failed");
      }
      return seconds(start);
    };
    pull();
    if (velbench::filesBelow(mirrorTree) != kS3Folders * kFilesPerFolder) {
      fail("the S3 tree update did not bring every file");
    }
    veltest::S3Client floor(service, prefix);
    measure(
        update, options.quick ? 3 : 7,
        [&] {
          const Clock::time_point start = Clock::now();
          for (const auto& [folder, files] : tree) {
            if (floor.keys(folder + "/").size() != files.size() + 1) {
              fail("the ListObjectsV2 floor listed another tree");
            }
            for (const std::string& file : files) {
              if (floor.get(file).body.size() != kSmallFile) {
                fail("the GET floor got another file");
              }
            }
          }
          return seconds(start);
        },
        pull);
    removeTree(mirrorTree);

    {
      const std::string big = dir + "/mirror/bigup";
      struct stat st;
      if (::stat(big.c_str(), &st) != 0 || static_cast<size_t>(st.st_size) != (mib << 20)) {
        makeFile(big, mib << 20, 0xd1b54a32d192ed03ULL);
      }
      const std::string target = service.url(prefix) + "curlcopy";
      measure(
          upload, options.quick ? 3 : 5,
          [&] {
            const Clock::time_point start = Clock::now();
            if (!velbench::run({"curl", "-sSf", "-o", "/dev/null", "--aws-sigv4",
                                "aws:amz:" + service.region + ":s3", "--user",
                                service.accessKey + ":" + service.secretKey, "-H",
                                "x-amz-content-sha256: UNSIGNED-PAYLOAD", "-T", big, target})) {
              fail("curl could not put the large file");
            }
            return seconds(start);
          },
          [&] {
            // A new name each round: nothing there, nothing recorded.
            floor.remove("bigup");
            agent.forget();
            const Clock::time_point start = Clock::now();
            if (VEL::syncToServer("bigup", false) != 0) {
              fail("S3 upload failed");
            }
            return seconds(start);
          });
      if (floor.head("bigup").status != 200) {
        fail("the large file is not in the bucket");
      }
    }
    ::setenv("UDS_ROOT_OSSUSER", folderUds.c_str(), 1);
  }
  curl_global_cleanup();
  veltest::stopCluster(cluster);
}

std::string showTime(double secondsPerOp) {
  char text[32];
  if (secondsPerOp >= 1) {
    std::snprintf(text, sizeof text, "%.2f s", secondsPerOp);
  } else if (secondsPerOp >= 1e-3) {
    std::snprintf(text, sizeof text, "%.1f ms", secondsPerOp * 1e3);
  } else {
    std::snprintf(text, sizeof text, "%.2f us", secondsPerOp * 1e6);
  }
  return text;
}

std::string showBytes(double bytes) {
  char text[32];
  if (bytes >= 1024) {
    std::snprintf(text, sizeof text, "%.2f KiB", bytes / 1024);
  } else {
    std::snprintf(text, sizeof text, "%.0f B", bytes);
  }
  return text;
}

std::string machine() {
  std::ifstream in("/proc/cpuinfo");
  std::string model;
  for (std::string line; std::getline(in, line);) {
    if (line.compare(0, 10, "model name") == 0) {
      model = line.substr(line.find(':') + 2);
      break;
    }
  }
  struct utsname names;
  ::uname(&names);
  return model + ", " + std::to_string(::sysconf(_SC_NPROCESSORS_ONLN)) + " cores, Linux " +
         names.release;
}

void printTable(const std::string& loadBefore) {
  std::fprintf(g_out, "vel benchmark: %s\n", machine().c_str());
  std::fprintf(g_out,
               "load average before %s, after %s; vel and floor: medians of interleaved "
               "rounds; ratio: median of the per-round ratios, with their quartiles\n\n",
               loadBefore.c_str(), loadAverage().c_str());
  std::fprintf(g_out, "| %-28s | %10s | %10s | %-31s | %5s | %-9s | %6s | %3s | %6s |\n", "what",
               "vel", "floor", "floor is", "ratio", "quartiles", "target", "met", "rounds");
  std::fprintf(g_out, "|%s|%s|%s|%s|%s|%s|%s|%s|%s|\n", std::string(30, '-').c_str(),
               std::string(12, '-').c_str(), std::string(12, '-').c_str(),
               std::string(33, '-').c_str(), std::string(7, '-').c_str(),
               std::string(11, '-').c_str(), std::string(8, '-').c_str(),
               std::string(5, '-').c_str(), std::string(8, '-').c_str());
  for (const Row& row : g_rows) {
    if (!row.note.empty()) {
      std::fprintf(g_out, "| %-28s | %s |\n", row.what.c_str(), row.note.c_str());
      continue;
    }
    if (row.bytes) {
      std::fprintf(g_out, "| %-28s | %10s | %10s | %-31s | %5.2f | %9s | %6s | %3s | %6d |\n",
                   row.what.c_str(), showBytes(row.vel).c_str(), showBytes(row.base).c_str(),
                   row.floor.c_str(), row.ratio, "", showBytes(row.target).c_str(),
                   row.vel <= row.target ? "yes" : "no", row.rounds);
      continue;
    }
    std::fprintf(g_out,
                 "| %-28s | %10s | %10s | %-31s | %5.2f | %4.2f-%4.2f | %6.2f | %3s | %6d |\n",
                 row.what.c_str(), showTime(row.vel).c_str(), showTime(row.base).c_str(),
                 row.floor.c_str(), row.ratio, row.low, row.high, row.target,
                 row.ratio <= row.target ? "yes" : "no", row.rounds);
  }
  if (!g_checks.empty()) {
    std::fprintf(g_out, "\n");
  }
  for (const std::string& check : g_checks) {
    std::fprintf(g_out, "%s\n", check.c_str());
  }
  std::fflush(g_out);
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--quick") {
      options.quick = true;
    } else if (arg == "--only" && i + 1 < argc) {
      std::stringstream groups(argv[++i]);
      for (std::string group; std::getline(groups, group, ',');) {
        options.only.insert(group);
      }
    } else if (arg == "--agent" && i + 1 < argc) {
      options.agent = argv[++i];
    } else if (arg == "--redis" && i + 1 < argc) {
      options.redis = argv[++i];
    } else {
      std::fprintf(stderr,
                   "usage: vel_bench [--quick] "
                   "[--only remote,connections,tree,large,sync,log,local,webdav,s3] "
                   "[--agent PATH] [--redis SOCKET]\n");
      return 2;
    }
  }
  auto wanted = [&](const char* group) {
    return options.only.empty() || options.only.count(group);
  };
  const std::string loadBefore = loadAverage();
  // Thousands of idle connections are opened at once.
  struct rlimit files;
  if (::getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < files.rlim_max) {
    files.rlim_cur = files.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &files);
  }

  const char* tmp = std::getenv("TMPDIR");
  std::string dir = std::string(tmp != nullptr ? tmp : "/tmp") + "/velbench.XXXXXX";
  if (::mkdtemp(&dir[0]) == nullptr) {
    fail("mkdtemp");
  }
  for (const char* sub : {"/store", "/mirror", "/log", "/floor"}) {
    makeDir(dir + sub);
  }
  ::setenv("UDS_ROOT_OSSUSER", (dir + "/uds").c_str(), 1);
  ::setenv("TARN_ROOT_DIR", (dir + "/mirror").c_str(), 1);
  ::setenv("_APP_LOG_DIR", (dir + "/log").c_str(), 1);

  // The library's progress lines go where an application's would when
  // nobody reads them; the table goes to the real standard output.
  std::fflush(stdout);
  g_out = ::fdopen(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0), "w");
  int null = ::open("/dev/null", O_WRONLY);
  ::dup2(null, STDOUT_FILENO);
  ::close(null);

  const size_t mib = options.quick ? 64 : 256;
  progress("preparing files in " + dir);
  makeTree(dir + "/store/tree", 1);
  makeTree(dir + "/mirror/up", 100000);
  makeDir(dir + "/mirror/local");
  for (int d = 0; d < kLocalFiles; ++d) {
    char name[16];
    std::snprintf(name, sizeof name, "/d%02d", d);
    const std::string folder = dir + "/mirror/local" + name;
    makeDir(folder);
    for (int f = 0; f < kLocalFiles; ++f) {
      std::snprintf(name, sizeof name, "/f%02d", f);
      makeFile(folder + name, kSmallFile, static_cast<unsigned long long>(d * 100 + f + 7));
    }
  }
  if (wanted("large")) {
    makeFile(dir + "/store/big", mib << 20, 0x9e3779b97f4a7c15ULL);
  }
  if (wanted("large") || wanted("s3")) {
    makeFile(dir + "/mirror/bigup", mib << 20, 0xd1b54a32d192ed03ULL);
  }

  {
    Agent agent(options.agent, dir + "/mirror", dir + "/uds", {"--store", dir + "/store"},
                dir + "/uds/journal");
    VEL::init({{"clientType", "Tavora"}});
    if (wanted("remote")) {
      remoteRows(options, agent);
    }
    if (wanted("connections")) {
      connectionRows(options, dir);
    }
    if (wanted("tree")) {
      treeRows(options, dir, agent);
    }
    if (wanted("large")) {
      largeRows(options, dir, mib, agent);
    }
    if (wanted("sync")) {
      syncRows(options, dir);
    }
    if (wanted("webdav")) {
      webdavRows(options, dir);
    }
    if (wanted("s3")) {
      s3Rows(options, dir, mib);
    }
  }
  if (wanted("log")) {
    logRow(options, dir);
  }
  if (wanted("local")) {
    localRows(options, dir);
  }
  VEL::finish();
  removeTree(dir);
  printTable(loadBefore);
  return 0;
}
