#include "collector/commands.h"

#include <string>
#include <tuple>
#include <vector>

#include "collector/fatal.h"
#include "collector/option_types.h"

namespace quenor::collector {
namespace {

constexpr char kProvisionFooter[] = R"(Examples:
  quenor-collector provision --store nats://one,two,three --max-bytes 400GiB \
      --monitor http://one:8222 --monitor http://two:8222 --monitor http://three:8222
      makes the stream REPORTS, the bucket CONTROL and the reader export, or shows them
  quenor-collector provision --check --store nats://one,two,three \
      --monitor http://one:8222 --monitor http://two:8222 --monitor http://three:8222
      whether each node holds the same

Exit codes: 0 as asked for, 64 wrong usage, 65 what is there differs, or a node lacks what others
hold, 69 cannot use the store.)";

constexpr char kExportFooter[] = R"(Examples:
  quenor-collector export --store nats://one,two,three --out /srv/reports
      goes on where it was, until it is told to end
  quenor-collector export --store nats://one,two,three --out /srv/reports --once
      ends when everything is read

Exit codes: 0 ended in order, 64 wrong usage, 69 cannot use the store, 73 cannot write.)";

constexpr char kControlFooter[] = R"(Examples:
  quenor-collector control show --store nats://one,two,three
      what is set, as JSON, and its revision
  quenor-collector control set --store nats://one,two,three --report-duration 300
      from now on every reply asks for a report in 300 seconds
  quenor-collector control policy steer --store nats://one,two,three --capacity 8000
      intervals of 30 to 50 seconds, by what each collector has to do

Exit codes: 0 done, 64 wrong usage or a value that cannot be meant, 65 what is set is not
understood, 69 cannot use the store or it was changed meanwhile.)";

constexpr char kPageFooter[] = R"(Examples:
  quenor-collector page --store nats://one,two,three \
      --collector http://127.0.0.1:9001 --collector http://127.0.0.1:9002 \
      --monitor http://one:8222 --monitor http://two:8222 --monitor http://three:8222
      open http://127.0.0.1:8390/ in a browser

Whoever reaches the page can change what collectors say. SIGINT or SIGTERM ends it.
Exit codes: 0 ended in order, 64 wrong usage, 69 cannot listen, 73 cannot create output.)";

}  // namespace

struct Commands::Parsed {
  std::string store;
  ProvisionOptions provision;
  CLI::App* provision_app = nullptr;
  ExportOptions to_files;
  CLI::App* export_app = nullptr;
  ControlOptions control;
  CLI::App* control_app = nullptr;
  std::string listen = "127.0.0.1:8390";
  PageOptions page;
  CLI::App* page_app = nullptr;
};

namespace {

// Of something in the store.
void AddName(CLI::App* app, const char* option, std::string* name, const char* help) {
  app->add_option(option, *name, help)
      ->type_name("NAME")
      ->check(StoreName())
      ->capture_default_str();
}

// A list of URLs without paths.
CLI::Option* AddUrls(CLI::App* app, const char* name, std::vector<std::string>* urls,
                     const char* help) {
  return app->add_option(name, *urls, help)
      ->type_name("URL")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
      ->check(HttpUrl());
}

void AddProvision(CLI::App* app, ProvisionOptions* options) {
  app->add_option("--replicas", options->replicas, "how many nodes hold each message")
      ->type_name("N")
      ->check(WholeNumber(1, 5))
      ->capture_default_str();
  app->add_option("--max-bytes", options->max_bytes,
                  "size of the stream to be made; beyond it reports are answered 507")
      ->type_name("SIZE")
      ->transform(AsSize())
      ->check(WholeNumber(1, kMaxCount));
  app->add_option("--max-age", options->max_age_ms,
                  "messages leave the stream after so long, read or not; without it they stay")
      ->type_name("TIME")
      ->transform(AsTime())
      ->check(WholeNumber(1000, kMaxTimeMs));
  AddName(app, "--bucket", &options->store.bucket, "the bucket of the control fields");
  AddName(app, "--reader", &options->reader, "the durable reader");
  CLI::Option* const monitor =
      AddUrls(app, "--monitor", &options->monitors,
              "a node's monitoring address, as in http://one:8222; may be repeated");
  CLI::Option* const check =
      app->add_flag("--check", options->check,
                    "make nothing: compare first sequence and count on each node")
          ->needs(monitor);
  app->add_option("--settle", options->settle_ms, "how long a node may lag behind the others")
      ->type_name("TIME")
      ->transform(AsTime())
      ->check(WholeNumber(1, kMaxTimeMs))
      ->default_str("10s")
      ->needs(check);
}

void AddExport(CLI::App* app, ExportOptions* options) {
  app->add_option("--out", options->out_dir, "folder of the files")
      ->type_name("FOLDER")
      ->required()
      ->check(NotEmpty());
  AddName(app, "--reader", &options->reader, "the durable reader, as provision made it");
  app->add_option("--rotate-size", options->rotate_bytes, "begin a new file beyond it")
      ->type_name("SIZE")
      ->transform(AsSize())
      ->check(WholeNumber(1, kMaxSizeBytes))
      ->default_str("256MiB");
  app->add_option("--rotate-time", options->rotate_ms, "begin a new file after so long")
      ->type_name("TIME")
      ->transform(AsTime())
      ->check(WholeNumber(1, kMaxTimeMs))
      ->default_str("10min");
  app->add_option("--batch", options->batch, "most messages between two syncs of the disk")
      ->type_name("N")
      ->check(WholeNumber(1, 50'000))
      ->capture_default_str();
  app->add_option("--progress", options->progress_ms, "time between two lines about it")
      ->type_name("TIME")
      ->transform(AsTime())
      ->check(WholeNumber(1, kMaxTimeMs))
      ->default_str("10s");
  app->add_flag("--once", options->once, "end when everything is read");
}

void AddPage(CLI::App* app, std::string* listen, PageOptions* options) {
  app->add_option("--listen", *listen, "address and port to serve on; port 0 picks a free one")
      ->type_name("HOST:PORT")
      ->capture_default_str();
  app->add_option("--port-file", options->port_file, "file that receives the port number")
      ->type_name("FILE")
      ->check(NotEmpty());
  app->add_option("--name", options->names,
                  "a name under which browsers may reach it, beside its addresses and localhost; "
                  "may be repeated")
      ->type_name("NAME")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
      ->check(NotEmpty());
  AddUrls(app, "--collector", &options->collectors,
          "a collector, as in http://127.0.0.1:9001; may be repeated");
  AddUrls(app, "--monitor", &options->monitors,
          "a node's monitoring address, as in http://one:8222; may be repeated");
  AddName(app, "--bucket", &options->store.bucket, "the bucket of the control fields");
  AddName(app, "--reader", &options->reader, "the durable reader whose lag is shown");
}

CLI::Option* AddField(CLI::App* app, const char* name, std::optional<uint32_t>* field,
                      const char* type, const char* help) {
  return app->add_option(name, *field, help)
      ->type_name(type)
      ->check(WholeNumber(0, std::numeric_limits<uint32_t>::max()));
}

void AddControlSet(CLI::App* app, ControlOptions* options) {
  AddField(app, "--send-interval", &options->send_interval_ms, "MS",
           "\"uint32_send_interval\" of each reply, drawn up to a half longer; 0: none");
  AddField(app, "--max-resend", &options->max_resend_count, "N",
           "\"uint32_max_resend_count\"; 0: none");
  AddField(app, "--report-duration", &options->report_duration_s, "S",
           "\"uint32_report_duration\"; 0: none");
  app->add_flag("--anew", options->anew,
                "begin with what holds before anything is set, whatever is set, by whomever");
}

void AddControlPolicy(CLI::App* app, ControlOptions* options) {
  app->add_option("kind", options->policy,
                  "none, fixed, brake, pace or steer; with none, what control set says holds")
      ->type_name("KIND")
      ->required();
  AddField(app, "--low", &options->low_ms, "MS", "least interval before its jitter");
  AddField(app, "--high", &options->high_ms, "MS", "greatest interval before its jitter");
  AddField(app, "--target", &options->target_percent, "PERCENT", "the use that is steered to");
  AddField(app, "--low-duration", &options->low_duration_s, "S", "least time between reports");
  AddField(app, "--high-duration", &options->high_duration_s, "S",
           "greatest time between reports; 0: owners are asked for none");
  AddField(app, "--capacity", &options->capacity, "N", "reports a second that a collector takes");
}

void AddControl(CLI::App* app, std::string* store, ControlOptions* options) {
  app->require_subcommand(1);
  CLI::App* const show = app->add_subcommand("show", "print what is set, and its revision");
  CLI::App* const set = app->add_subcommand("set", "set the fields of the replies");
  CLI::App* const policy = app->add_subcommand("policy", "have a policy decide the fields");
  for (CLI::App* const each : {show, set, policy}) {
    each->footer(kControlFooter);
    AddStore(each, true, store, &options->store);
    AddName(each, "--bucket", &options->store.bucket, "the bucket of the control fields");
  }
  AddControlSet(set, options);
  AddControlPolicy(policy, options);
}

}  // namespace

Commands::Commands(CLI::App* app) : parsed_(std::make_unique<Parsed>()) {
  app->require_subcommand(0, 1);
  parsed_->provision_app = app->add_subcommand(
      "provision", "make what a tier needs in its store, or compare the store's nodes");
  parsed_->provision_app->footer(kProvisionFooter);
  AddStore(parsed_->provision_app, true, &parsed_->store, &parsed_->provision.store);
  AddProvision(parsed_->provision_app, &parsed_->provision);

  parsed_->export_app = app->add_subcommand("export", "read the stream into files of lines");
  parsed_->export_app->footer(kExportFooter);
  AddStore(parsed_->export_app, true, &parsed_->store, &parsed_->to_files.store);
  AddExport(parsed_->export_app, &parsed_->to_files);

  parsed_->control_app = app->add_subcommand("control", "what collectors say in their replies");
  parsed_->control_app->footer(kControlFooter);
  AddControl(parsed_->control_app, &parsed_->store, &parsed_->control);

  parsed_->page_app = app->add_subcommand("page", "serve operators a page about the tier");
  parsed_->page_app->footer(kPageFooter);
  AddStore(parsed_->page_app, true, &parsed_->store, &parsed_->page.store);
  AddPage(parsed_->page_app, &parsed_->listen, &parsed_->page);
}

Commands::~Commands() = default;

bool Commands::Finish(Command* command) {
  if (parsed_->provision_app->parsed()) {
    parsed_->provision.store.nodes = ParseStore(parsed_->store);
    *command = parsed_->provision;
  } else if (parsed_->export_app->parsed()) {
    parsed_->to_files.store.nodes = ParseStore(parsed_->store);
    *command = parsed_->to_files;
  } else if (parsed_->control_app->parsed()) {
    parsed_->control.store.nodes = ParseStore(parsed_->store);
    parsed_->control.change = !parsed_->control_app->get_subcommand("show")->parsed();
    *command = parsed_->control;
  } else if (parsed_->page_app->parsed()) {
    PageOptions* const page = &parsed_->page;
    page->store.nodes = ParseStore(parsed_->store);
    std::tie(page->host, page->port) = ParseAddress(parsed_->listen);
    *command = *page;
  }
  return !std::holds_alternative<std::monostate>(*command);
}

}  // namespace quenor::collector
