// The C interface over quenor::Reporter. Whatever a program passes is checked here.
#include "c/quenor/reporter.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include "c/last_error.h"
#include "c/sized.h"
#include "c/transport.h"
#include "quenor_base/platform/exception_barrier.h"
#include "quenor_base/platform/local_log.h"
#include "quenor_base/reporter/exposition.h"
#include "quenor_base/reporter/reporter.h"

using quenor::Reporter;
using quenor::SharedSettings;

struct quenor_reporter {
  std::unique_ptr<Reporter> reporter;
};

namespace {

constexpr char kInC[] = "quenor's C interface";
constexpr char kTransportsOwn[] =
    "ca_file, client_certificate_file, client_key_file: they are of the library's own HTTP client, "
    "and quenor_set_transport() has replaced it; leave them out, and tell the transport";

constexpr char kNoUrl[] =
    "url: it is none of the form https://HOST/PATH (or http://, unless require_tls is set); "
    "the old one stays";

std::string TextOr(const char* text) { return text != nullptr ? text : ""; }

quenor_error ErrorOf(Reporter::Refusal refusal) {
  switch (refusal) {
    case Reporter::Refusal::kNone:
      return QUENOR_OK;
    case Reporter::Refusal::kFull:
      return QUENOR_FULL;
    case Reporter::Refusal::kEmpty:
      return QUENOR_EMPTY;
    case Reporter::Refusal::kNoBytes:
      return QUENOR_BAD_ARGUMENT;
    case Reporter::Refusal::kTooLarge:
      return QUENOR_TOO_LARGE;
    case Reporter::Refusal::kNowAndDelay:
      return QUENOR_NOW_AND_DELAY;
    case Reporter::Refusal::kStopped:
      return QUENOR_STOPPED;
    case Reporter::Refusal::kNoMemory:
      return QUENOR_NO_MEMORY;
    case Reporter::Refusal::kForked:
      return QUENOR_FORKED;
  }
  return QUENOR_BAD_ARGUMENT;
}

// The shared ones begin with "as set", which is no value of ours.
template <typename Ours>
std::optional<Ours> ValueOf(int theirs) {
  if (theirs == 0) return std::nullopt;
  return static_cast<Ours>(static_cast<unsigned>(theirs) - 1);
}

bool HasClientOptions(const quenor_options& options) {
  return options.ca_file != nullptr || options.client_certificate_file != nullptr ||
         options.client_key_file != nullptr;
}

SharedSettings SharedOf(const quenor_options& options) {
  SharedSettings shared;
  shared.cache = ValueOf<SharedSettings::Cache>(options.cache);
  shared.durability = ValueOf<SharedSettings::Durability>(options.durability);
  if (options.folder != nullptr) shared.folder = options.folder;
  if (options.proxy_host != nullptr) {
    shared.socks5_proxy = {options.proxy_host, options.proxy_port, TextOr(options.proxy_user),
                           TextOr(options.proxy_password), /*enabled=*/true};
  }
  if (HasClientOptions(options) || options.require_tls != 0) {
    quenor::HttpDefaults& http = shared.http.emplace();
    http.ca_file = TextOr(options.ca_file);
    http.client_certificate_file = TextOr(options.client_certificate_file);
    http.client_key_file = TextOr(options.client_key_file);
    http.require_tls = options.require_tls != 0;
  }
  return shared;
}

Reporter::Options OptionsOf(const quenor_options& from) {
  Reporter::Options options;
  options.name = TextOr(from.name);
  options.url = TextOr(from.url);
  options.http2 = from.http1_only == 0;
  options.compress = from.compress != 0;
  if (from.send_limit != 0) options.send_limit = from.send_limit;
  options.send_interval_ms = from.send_interval_ms;
  options.shared = SharedOf(from);
  if (from.on_update != nullptr) {
    options.on_update = [tell = from.on_update,
                         context = from.context](const Reporter::Update& update) {
      const quenor_update told = {sizeof told,
                                  update.id,
                                  static_cast<quenor_state>(update.state),
                                  NameOf(update.cause),
                                  update.status_code,
                                  update.sends,
                                  HttpReasonName(update.reason)};
      tell(context, &told);
    };
  }
  if (from.on_tuning != nullptr) {
    options.on_tuning = [tell = from.on_tuning,
                         context = from.context](const Reporter::Tuning& tuning) {
      const quenor_tuning told = {sizeof told, tuning.send_interval_ms, tuning.send_limit,
                                  tuning.report_interval_ms};
      tell(context, &told);
    };
  }
  return options;
}

// Asked before anything is done.
bool HasRoom(const quenor_outcome* outcome) { return outcome->size >= sizeof outcome->size; }

void GiveOutcome(const Reporter::Outcome& from, quenor_outcome* to) {
  if (to == nullptr) return;
  sized::Give({sizeof *to, from.acknowledged, from.rejected, from.dropped, from.kept, from.out},
              to);
}

// Of an operation that needs nothing but its reporter.
template <typename Act>
quenor_error With(quenor_reporter* reporter, Act act) {
  if (reporter == nullptr) return QUENOR_BAD_ARGUMENT;
  quenor::base::EndOnException(kInC, [&] { act(reporter->reporter.get()); });
  return QUENOR_OK;
}

}  // namespace

std::string& LastError() {
  thread_local std::string error;
  return error;
}

void quenor_init(void* structure, size_t size) {
  if (structure == nullptr || size < sizeof size) return;
  std::memset(structure, 0, size);
  std::memcpy(structure, &size, sizeof size);
}

const char* quenor_version() { return QUENOR_VERSION; }

const char* quenor_error_text(int error) {
  switch (error) {
    case QUENOR_OK:
      return "it is done";
    case QUENOR_BAD_ARGUMENT:
      return "an argument is null, or a size is none";
    case QUENOR_BAD_OPTION:
      return "an option cannot be; quenor_last_error() names it";
    case QUENOR_FULL:
      return Reporter::TextOf(Reporter::Refusal::kFull);
    case QUENOR_EMPTY:
      return Reporter::TextOf(Reporter::Refusal::kEmpty);
    case QUENOR_TOO_LARGE:
      return Reporter::TextOf(Reporter::Refusal::kTooLarge);
    case QUENOR_NOW_AND_DELAY:
      return Reporter::TextOf(Reporter::Refusal::kNowAndDelay);
    case QUENOR_STOPPED:
      return Reporter::TextOf(Reporter::Refusal::kStopped);
    case QUENOR_NO_MEMORY:
      return Reporter::TextOf(Reporter::Refusal::kNoMemory);
    case QUENOR_FORKED:
      return Reporter::TextOf(Reporter::Refusal::kForked);
  }
  return "this is none of quenor's errors";
}

const char* quenor_last_error() { return LastError().c_str(); }

quenor_error quenor_create(const quenor_options* options, quenor_reporter** reporter) {
  quenor_options taken;
  if (reporter == nullptr) return QUENOR_BAD_ARGUMENT;
  *reporter = nullptr;
  if (!sized::Take(options, &taken)) return QUENOR_BAD_ARGUMENT;
  if (host_transport::IsSet() && HasClientOptions(taken)) {
    LastError() = kTransportsOwn;
    return QUENOR_BAD_OPTION;
  }
  quenor::base::EndOnException(kInC, [&] {
    auto made = Reporter::Create(OptionsOf(taken), &LastError());
    if (made == nullptr) return;
    host_transport::Fix();
    *reporter = new quenor_reporter{std::move(made)};
  });
  return *reporter != nullptr ? QUENOR_OK : QUENOR_BAD_OPTION;
}

void quenor_destroy(quenor_reporter* reporter) { delete reporter; }

quenor_error quenor_send(quenor_reporter* reporter, const void* bytes, size_t size,
                         const quenor_send_options* options, uint64_t* id) {
  quenor_send_options taken;
  if (id != nullptr) *id = 0;
  if (reporter == nullptr || (!sized::Take(options, &taken) && options != nullptr)) {
    return QUENOR_BAD_ARGUMENT;
  }
  Reporter::SendOptions with;
  with.keep = taken.memory_only == 0;
  with.now = taken.now != 0;
  with.delay_ms = taken.delay_ms;
  const Reporter::Sent sent = reporter->reporter->Send(bytes, size, with);
  if (id != nullptr) *id = sent.id;
  return ErrorOf(sent.refusal);
}

quenor_error quenor_flush(quenor_reporter* reporter, uint32_t patience_ms,
                          quenor_outcome* outcome) {
  if (outcome != nullptr && !HasRoom(outcome)) return QUENOR_BAD_ARGUMENT;
  return With(reporter, [&](Reporter* one) {
    GiveOutcome(one->Flush(std::chrono::milliseconds(patience_ms)), outcome);
  });
}

quenor_error quenor_stop(quenor_reporter* reporter, uint32_t patience_ms, quenor_outcome* outcome) {
  if (outcome != nullptr && !HasRoom(outcome)) return QUENOR_BAD_ARGUMENT;
  return With(reporter, [&](Reporter* one) {
    GiveOutcome(one->Stop(std::chrono::milliseconds(patience_ms)), outcome);
  });
}

quenor_error quenor_now(quenor_reporter* reporter, quenor_outcome* outcome) {
  if (outcome == nullptr || !HasRoom(outcome)) return QUENOR_BAD_ARGUMENT;
  return With(reporter, [&](Reporter* one) { GiveOutcome(one->Now(), outcome); });
}

quenor_error quenor_set_send_interval(quenor_reporter* reporter, uint32_t interval_ms) {
  return With(reporter, [&](Reporter* one) { one->SetSendInterval(interval_ms); });
}

quenor_error quenor_set_url(quenor_reporter* reporter, const char* url) {
  if (url == nullptr) return QUENOR_BAD_ARGUMENT;
  bool is_one = true;
  const quenor_error done = With(reporter, [&](Reporter* one) { is_one = one->SetUrl(url); });
  if (is_one) return done;
  LastError() = kNoUrl;
  return QUENOR_BAD_OPTION;
}

quenor_error quenor_report_interval_ms(quenor_reporter* reporter, uint32_t* interval_ms) {
  if (interval_ms == nullptr) return QUENOR_BAD_ARGUMENT;
  return With(reporter, [&](Reporter* one) { *interval_ms = one->ReportIntervalMs(); });
}

size_t quenor_metrics(char* text, size_t size) {
  size_t all = 0;
  quenor::base::EndOnException(kInC, [&] {
    const std::string metrics = Reporter::Metrics();
    all = metrics.size();
    if (text == nullptr || size == 0) return;
    const size_t part = std::min(all, size - 1);
    std::memcpy(text, metrics.data(), part);
    text[part] = '\0';
  });
  return all;
}

void quenor_set_log(quenor_log log, void* context) { quenor::SetLogSink(log, context); }
