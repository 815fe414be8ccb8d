#include "monitor/monitor_server.h"

#include <httplib.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <memory>
#include <mutex>
#include <thread>

#include "capture/candump_log.h"
#include "core/result_text.h"
#include "core/sim_mode.h"
#include "monitor/family_source.h"
#include "monitor/family_view.h"
#include "monitor/frame_source.h"
#include "monitor/json_text.h"
#include "monitor/monitor_model.h"
#include "monitor/recording.h"
#include "monitor/update_hub.h"
#include "src/can/can_text.h"

namespace varnel_cli::monitor {
namespace {

std::atomic<bool> stop_requested{false};

// The page's files: installed beside the tool (share/varnel/monitor), else in the source tree the
// tool was built from. Only these names are ever served.
std::string web_directory() {
  const std::string installed = sibling_program("../share/varnel/monitor");
  if (std::ifstream(installed + "/index.html")) return installed;
  return VARNEL_MONITOR_WEB_SOURCE;
}

// Debian's Chart.js (libjs-chart.js); empty when it is not installed.
std::string chart_js_path() {
  for (const char* path : {"/usr/share/javascript/chart.js/chart.umd.js",
                           "/usr/share/javascript/chart.js/chart.min.js",
                           "/usr/share/javascript/chart.js/Chart.min.js"})
    if (std::ifstream(path)) return path;
  return "";
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// 128 random bits for the URL when the page is reachable from elsewhere.
std::string random_token() {
  std::ifstream random("/dev/urandom", std::ios::binary);
  uint8_t bytes[16] = {};
  random.read(reinterpret_cast<char*>(bytes), sizeof bytes);
  std::string token;
  append_hex(token, bytes);
  return token;
}

bool is_loopback(const std::string& address) {
  return address == "127.0.0.1" || address == "localhost" || address == "::1";
}

class Monitor {
 public:
  Monitor(const MonitorOptions& options, std::unique_ptr<FrameSource> source, DBC_HANDLE db,
          std::string dbc_problem, std::unique_ptr<FamilySource> families)
      : options_(options),
        source_(std::move(source)),
        db_(db),
        model_(source_->channels(), db),
        hub_(options.max_pages, options.max_queued_updates),
        families_(std::move(families)),
        family_view_(families_->channels()) {
    if (!dbc_problem.empty()) model_.note(dbc_problem, true);
    if (!options_.record.empty()) start_recording(options_.record);
    if (!is_loopback(options_.listen)) token_ = random_token();
  }

  int run() {
    setup_routes();
    int port = options_.port;
    if (port == 0) {
      port = server_.bind_to_any_port(options_.listen);
    } else if (!server_.bind_to_port(options_.listen, port)) {
      port = -1;
    }
    if (port <= 0) {
      std::fprintf(stderr, "monitor: cannot listen on %s port %d (in use? --port 0 takes any)\n",
                   options_.listen.c_str(), options_.port);
      return 1;
    }
    const std::string host = options_.listen.find(':') != std::string::npos
                                 ? "[" + options_.listen + "]"
                                 : options_.listen;
    std::printf("monitor: http://%s:%d/%s\n", host.c_str(), port,
                token_.empty() ? "" : ("?token=" + token_).c_str());
    std::fflush(stdout);
    std::thread http([this] { server_.listen_after_bind(); });
    std::thread capture([this] { capture_loop(); });
    std::thread publish([this] { publish_loop(); });
    while (!stop_requested) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    hub_.close_all();
    server_.stop();
    http.join();
    capture.join();
    publish.join();
    families_->close();
    source_->close();
    stop_recording();
    return 0;
  }

 private:
  void capture_loop() {
    std::vector<MonitorFrame> frames;
    auto next_health = std::chrono::steady_clock::now();
    bool ended = false;
    while (!stop_requested) {
      frames.clear();
      std::unique_lock feed(feed_mutex_);  // no frame fetched before a seek is added after it
      std::string message;
      if (!ended && !source_->fetch(frames, message)) {
        ended = true;  // the page stays up with what it has
        std::fprintf(stderr, "monitor: %s\n", message.c_str());
        std::lock_guard lock(mutex_);
        model_.note(message, true);
      }
      FamilyBatch family_batch;
      if (!families_->fetch(family_batch, message)) {
        std::fprintf(stderr, "monitor: %s\n", message.c_str());
        std::lock_guard lock(mutex_);
        model_.note(message, true);
      }
      const bool health_due = std::chrono::steady_clock::now() >= next_health;
      std::vector<ChannelHealth> health;
      if (health_due) {
        next_health = std::chrono::steady_clock::now() + std::chrono::milliseconds(250);
        for (size_t i = 0; i < source_->channels().size(); ++i)
          health.push_back(source_->health(i));
      }
      {
        std::lock_guard lock(mutex_);
        for (const MonitorFrame& f : frames) model_.add(f);
        for (size_t i = 0; i < health.size(); ++i)
          if (health[i].known) model_.set_health(i, health[i]);
        record(frames);
        family_view_.add(family_batch);
        if (recording_) recording_->write(family_batch);
      }
      feed.unlock();
      if (frames.empty() && family_batch.empty())
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }

  void publish_loop() {
    const auto interval = std::chrono::milliseconds(options_.update_ms);
    auto next = std::chrono::steady_clock::now() + interval;
    while (!stop_requested) {
      std::this_thread::sleep_until(next);
      next += interval;
      std::shared_ptr<const std::string> delta, full;
      {
        std::lock_guard lock(mutex_);
        const uint64_t now = source_->now_us();
        if (auto replay = source_->replay_state()) model_.set_replay(*replay);
        if (seeked_.exchange(false)) {  // every page drops the rows the seek went back before
          delta = full = std::make_shared<const std::string>(
              with_families(model_.update_json(now, true), true));
        } else {
          delta = std::make_shared<const std::string>(
              with_families(model_.update_json(now, false), false));
        }
        if (!full && hub_.any_wants_full())
          full = std::make_shared<const std::string>(
              with_families(model_.update_json(now, true), true));
        model_.end_interval();
        family_view_.end_interval();
      }
      hub_.publish(delta, full);
    }
  }

  // The other families' part of an update, inside its object. Called with the lock held.
  std::string with_families(std::string update, bool full) const {
    const std::string families = family_view_.json(full);
    if (families.empty() || update.empty() || update.back() != '}') return update;
    update.pop_back();
    return update + "," + families + "}";
  }

  // Called with the lock held.
  void record(const std::vector<MonitorFrame>& frames) {
    if (recording_) recording_->write(frames);
  }

  bool start_recording(const std::string& path) {
    std::lock_guard lock(record_mutex_);
    if (recording_) return true;
    if (!(recording_ = Recording::open(path, source_->channels()))) {
      model_.note("cannot write " + path);
      return false;
    }
    record_path_ = path;
    if (!families_->channels().empty()) recording_->add_family_channels(families_->channels());
    std::fprintf(stderr, "monitor: recording to %s\n", path.c_str());
    return true;
  }

  void stop_recording() {
    std::lock_guard lock(record_mutex_);
    recording_.reset();
  }

  // Requests from elsewhere carry the token (in the URL, then in a cookie the page gets); on the
  // loopback the Host must be the loopback, so a web site's DNS name pointed at 127.0.0.1 does not
  // reach the monitor.
  bool admitted(const httplib::Request& req, httplib::Response& res) {
    if (token_.empty()) {
      const std::string host = req.get_header_value("Host");
      const std::string name = host.substr(0, host.rfind(':'));
      if (is_loopback(name) || name == "[::1]") return true;
    } else if (req.get_param_value("token") == token_ ||
               req.get_header_value("Cookie").find("varnel_monitor=" + token_) !=
                   std::string::npos) {
      return true;
    }
    res.status = 403;
    res.set_content("forbidden\n", "text/plain");
    return false;
  }

  // A change (send, clear, record) only from the page itself: a browser names the page's origin.
  bool same_origin(const httplib::Request& req, httplib::Response& res) {
    const std::string origin = req.get_header_value("Origin");
    if (origin.empty() || origin == "http://" + req.get_header_value("Host")) return true;
    res.status = 403;
    res.set_content("cross-origin request refused\n", "text/plain");
    return false;
  }

  void serve_file(const std::string& path, const char* type, httplib::Response& res) {
    std::string body = read_file(path);
    if (body.empty()) {
      res.status = 404;
      return;
    }
    res.set_header("Cache-Control", "no-cache");
    res.set_content(std::move(body), type);
  }

  void setup_routes() {
    server_.new_task_queue = [this] { return new httplib::ThreadPool(options_.max_pages + 4); };
    server_.set_payload_max_length(64 * 1024);
    // a page that stops reading holds its thread this long before it is let go; meanwhile its
    // own queue drops its oldest updates
    server_.set_write_timeout(30, 0);
    // Pages' sockets inherit a small send buffer, so a page that stops reading meets its own
    // bounded queue soon instead of the kernel holding megabytes of updates for it.
    server_.set_socket_options([](socket_t sock) {
      int yes = 1, bytes = 64 * 1024;
      setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
      setsockopt(sock, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
    });
    const std::string web = web_directory();
    server_.Get("/", [this, web](const httplib::Request& req, httplib::Response& res) {
      if (!admitted(req, res)) return;
      if (!token_.empty())
        res.set_header("Set-Cookie",
                       "varnel_monitor=" + token_ + "; Path=/; SameSite=Strict; HttpOnly");
      serve_file(web + "/index.html", "text/html; charset=utf-8", res);
    });
    for (auto [name, type] :
         {std::pair{"monitor.js", "text/javascript"}, std::pair{"monitor.css", "text/css"}}) {
      server_.Get(std::string("/") + name,
                  [this, web, name = std::string(name), type = std::string(type)](
                      const httplib::Request& req, httplib::Response& res) {
                    if (admitted(req, res)) serve_file(web + "/" + name, type.c_str(), res);
                  });
    }
    server_.Get("/chart.js", [this](const httplib::Request& req, httplib::Response& res) {
      if (!admitted(req, res)) return;
      const std::string path = chart_js_path();
      if (path.empty()) {
        res.status = 404;
        res.set_content("Chart.js is not installed (Debian package libjs-chart.js)\n",
                        "text/plain");
        return;
      }
      serve_file(path, "text/javascript", res);
    });
    server_.Get("/info", [this](const httplib::Request& req, httplib::Response& res) {
      if (admitted(req, res)) res.set_content(info_json(), "application/json");
    });
    server_.Get("/events", [this](const httplib::Request& req, httplib::Response& res) {
      if (!admitted(req, res)) return;
      auto client = hub_.connect();
      if (!client) {
        res.status = 503;
        res.set_content("too many pages connected\n", "text/plain");
        return;
      }
      res.set_header("Cache-Control", "no-store");
      res.set_chunked_content_provider(
          "text/event-stream",
          [client](size_t, httplib::DataSink& sink) {
            auto delivery = client->pop(std::chrono::milliseconds(1000));
            if (client->closed()) return false;
            std::string event = ": still here\n\n";
            if (delivery) {
              event = "data: {\"dropped\":" + std::to_string(delivery->dropped_total) +
                      ",\"update\":" + *delivery->update + "}\n\n";
            }
            return sink.write(event.data(), event.size());
          },
          [this, client](bool) { hub_.disconnect(client); });
    });
    server_.Post("/clear", [this](const httplib::Request& req, httplib::Response& res) {
      if (!admitted(req, res) || !same_origin(req, res)) return;
      std::lock_guard lock(mutex_);
      model_.clear();
      family_view_.clear();
      res.set_content("{}", "application/json");
    });
    server_.Post("/record", [this](const httplib::Request& req, httplib::Response& res) {
      if (!admitted(req, res) || !same_origin(req, res)) return;
      if (req.get_param_value("on") == "1") {
        std::lock_guard lock(mutex_);
        start_recording(options_.record.empty() ? candump_log::log_file_name() : options_.record);
      } else {
        std::lock_guard lock(mutex_);
        stop_recording();
      }
      res.set_content(info_json(), "application/json");
    });
    server_.Post("/replay", [this](const httplib::Request& req, httplib::Response& res) {
      if (admitted(req, res) && same_origin(req, res)) control_replay(req, res);
    });
    server_.Post("/send", [this](const httplib::Request& req, httplib::Response& res) {
      if (!admitted(req, res) || !same_origin(req, res)) return;
      if (!options_.allow_send) {
        res.status = 403;
        res.set_content("{\"error\":\"sending is off (start the monitor with --allow-send)\"}",
                        "application/json");
        return;
      }
      std::string error = send(req);
      std::string body = "{\"error\":";
      append_json_string(body, error);
      res.set_content(body + "}", "application/json");
      if (!error.empty()) res.status = 400;
    });
  }

  // seek=SECONDS (from the log's start) and play=1 or 0 for a replay; answers where it stands.
  // The frames up to the new time are fed before the answer, so the next update shows them.
  void control_replay(const httplib::Request& req, httplib::Response& res) {
    if (!source_->replay_state()) {
      res.status = 404;
      res.set_content("{\"error\":\"not a replay\"}", "application/json");
      return;
    }
    if (req.has_param("play")) source_->set_paused(req.get_param_value("play") != "1");
    if (req.has_param("seek")) {
      char* end = nullptr;
      const std::string text = req.get_param_value("seek");
      const double seconds = std::strtod(text.c_str(), &end);
      if (text.empty() || *end || !std::isfinite(seconds)) {
        res.status = 400;
        res.set_content("{\"error\":\"seek takes seconds from the log's start\"}",
                        "application/json");
        return;
      }
      const uint64_t first = source_->replay_state()->first_us;
      seek_replay(seconds <= 0 ? first : first + uint64_t(std::llround(seconds * 1e6)));
    }
    res.set_content(replay_json(*source_->replay_state()), "application/json");
  }

  void seek_replay(uint64_t at_us) {
    std::lock_guard feed(feed_mutex_);
    std::lock_guard lock(mutex_);
    const std::optional<bool> from_start = source_->seek(at_us);
    if (!from_start) return;
    if (*from_start) model_.clear();
    const uint64_t to_us = source_->replay_state()->seek_us;  // held within the log's span
    std::vector<MonitorFrame> frames;
    std::string message;
    while (source_->seeking()) {
      frames.clear();
      source_->fetch(frames, message);
      for (const MonitorFrame& f : frames) model_.add_jumped(f, to_us);
    }
    model_.settle_after_seek();
    seeked_ = true;
  }

  // channel=N and either frame=123#DEADBEEF or message=NAME with a field per signal (the others
  // at their start values). Empty when sent, else why not.
  std::string send(const httplib::Request& req) {
    const size_t channel = size_t(std::atoi(req.get_param_value("channel").c_str()));
    if (channel >= source_->channels().size()) return "no such channel";
    CANFD_MSG frame{};
    if (req.has_param("frame")) {
      auto parsed = varnel::can_text::parse_frame(req.get_param_value("frame"));
      if (!parsed) return "not a frame: use 123#DEADBEEF, 123#R, 123##1...";
      frame = *parsed;
    } else {
      if (!db_) return "no DBC loaded";
      const std::string message = req.get_param_value("message");
      const int id = DBC_GetMsgIDByName(db_, message.c_str());
      const int count = DBC_GetMsgSignalQuantity(db_, message.c_str());
      if (count < 0) return "no message " + message + " in the DBC";
      std::vector<double> values(size_t(count), NAN);
      for (int i = 0; i < count; ++i) {
        char name[VARNEL_DBC_TEXT_MAX];
        if (DBC_GetMsgSignalName(db_, message.c_str(), uint32_t(i), name) == 0 &&
            req.has_param(name) && !req.get_param_value(name).empty())
          values[size_t(i)] = std::strtod(req.get_param_value(name).c_str(), nullptr);
      }
      const int len = VARNEL_DbcEncodeFrame(db_, uint32_t(id), values.data(), count, 0, frame.Data,
                                            sizeof frame.Data);
      if (len < 0) return "the DBC refuses these values: " + std::string(result_text(len));
      frame.Id = uint32_t(id);
      frame.DataLen = uint8_t(len);
      if (len > 8) frame.Flags = 0x04;
    }
    const int rc = source_->send(channel, frame);
    if (rc == -1) return "this source cannot send";
    if (rc != 0) return std::string("send: ") + result_text(rc);
    return "";
  }

  std::string info_json() {
    std::string out = "{\"allow_send\":";
    out += options_.allow_send ? "true" : "false";
    out += ",\"replay\":";
    append_json_string(out, options_.replay);
    out += ",\"recording\":";
    {
      std::lock_guard lock(record_mutex_);
      append_json_string(out, recording_ ? record_path_ : "");
    }
    out += ",\"chart_js\":";
    out += chart_js_path().empty() ? "false" : "true";
    out += ",\"channels\":[";
    for (size_t i = 0; i < source_->channels().size(); ++i) {
      if (i) out += ",";
      append_json_string(out, source_->channels()[i].name);
    }
    out += "],\"messages\":[";
    const int messages = db_ ? DBC_GetMsgQuantity(db_) : 0;
    for (int m = 0; m < messages; ++m) {
      char name[VARNEL_DBC_TEXT_MAX];
      if (DBC_GetMsgName(db_, m, name) != 0) break;
      out += m ? ",{\"name\":" : "{\"name\":";
      append_json_string(out, name);
      out += ",\"signals\":[";
      const int count = DBC_GetMsgSignalQuantity(db_, name);
      for (int i = 0; i < count; ++i) {
        char signal[VARNEL_DBC_TEXT_MAX];
        if (DBC_GetMsgSignalName(db_, name, uint32_t(i), signal) != 0) break;
        if (i) out += ",";
        append_json_string(out, signal);
      }
      out += "]}";
    }
    return out + "]}";
  }

  MonitorOptions options_;
  std::unique_ptr<FrameSource> source_;
  DBC_HANDLE db_;
  std::mutex mutex_;                 // the model, and the recording file while frames are written
  std::mutex feed_mutex_;            // held from a fetch until its frames are in the model
  std::atomic<bool> seeked_{false};  // a replay was moved: the next update is whole
  MonitorModel model_;
  UpdateHub hub_;
  httplib::Server server_;
  std::string token_;
  std::recursive_mutex record_mutex_;
  std::unique_ptr<Recording> recording_;
  std::string record_path_;
  std::unique_ptr<FamilySource> families_;
  FamilyView family_view_;  // under mutex_
};

}  // namespace

int run_monitor(const MonitorOptions& options) {
  // LIN, UART and K-line channels (lin0, uart:HANDLE:CH@9600...) apart from the CAN ones
  std::vector<std::string> can_names, family_texts;
  std::vector<FamilyChannelName> family_names;
  for (const std::string& text : options.channels) {
    if (!looks_like_family_channel(text)) {
      can_names.push_back(text);
      continue;
    }
    std::string why;
    const auto name = parse_family_channel_name(text, &why);
    if (!name) {
      std::fprintf(stderr, "monitor: %s: %s\n", text.c_str(), why.c_str());
      return 2;
    }
    family_names.push_back(*name);
    family_texts.push_back(text);
  }
  // The source first: on the virtual adapter opening it runs the tool again, and what this
  // process said before would be said twice.
  auto families = FamilySource::open(family_names, family_texts);
  if (!families) return 1;
  auto source =
      options.replay.empty()
          ? open_live_can(can_names, options.bitrate, options.data_bitrate)
          : open_file_replay(options.replay, options.fast, options.bitrate, options.data_bitrate);
  if (!source) return 1;
  // A DBC that does not load leaves the monitor running without decoding: said on stderr and
  // on the page.
  DBC_HANDLE db = 0;
  std::string dbc_problem;
  if (!options.dbc.empty()) {
    db = VARNEL_DbcLoadFileEx(options.dbc.c_str(), VARNEL_DBC_STANDARD);
    if (!db)
      dbc_problem = "cannot load the DBC " + options.dbc + ": frames are shown undecoded";
    else if (DBC_GetMsgQuantity(db) == 0)
      dbc_problem = "the DBC " + options.dbc + " defines no messages";
    if (!dbc_problem.empty()) std::fprintf(stderr, "monitor: %s\n", dbc_problem.c_str());
  }
  stop_requested = false;
  auto on_signal = [](int) { stop_requested = true; };
  auto previous_int = std::signal(SIGINT, on_signal);
  auto previous_term = std::signal(SIGTERM, on_signal);
  std::signal(SIGPIPE, SIG_IGN);  // a page that goes away mid-write
  const int code = Monitor(options, std::move(source), db, dbc_problem, std::move(families)).run();
  std::signal(SIGINT, previous_int);
  std::signal(SIGTERM, previous_term);
  return code;
}

}  // namespace varnel_cli::monitor
