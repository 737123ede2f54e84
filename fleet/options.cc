#include "fleet/options.h"

#include <CLI/CLI.hpp>
#include <stdexcept>

namespace quenor::fleet {
namespace {

constexpr char kFooter[] = R"(Examples:
  quenor-fleet run outage.fleet
      what becomes of the reports, in a table
  quenor-fleet run outage.fleet --out pictures --set "owner limit=none"
      the same with another resend limit; each second as CSV, and pictures
  quenor-fleet compare default.fleet steer.fleet
      two scenarios, side by side
  quenor-fleet check outage.fleet --set scale=0.01 --seed 7
      whether its expectations hold, with a hundredth of the channels and of the capacity

Exit codes:
  0   done; with check, every expectation holds
  1   an expectation does not hold
  64  wrong usage
  65  a scenario that cannot be read, or cannot be meant
  70  no memory, or books that do not close
  73  a file or a picture could not be made)";

void AddCommon(CLI::App* command, Options* options) {
  command->add_option("--seed", options->seed, "of all chances: one seed, one outcome")
      ->type_name("N")
      ->capture_default_str();
  command
      ->add_option("--set", options->settings,
                   "a line of the scenario's, behind all others, as \"server capacity=500\"; may "
                   "be repeated")
      ->type_name("KEY=VALUE")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  command
      ->add_option("--out", options->out, "folder for each run's seconds, CSV, and pictures, SVG")
      ->type_name("DIR");
}

CLI::App* AddCommand(CLI::App* app, const char* name, const char* what, const char* scenarios,
                     int least, int most, Options* options) {
  CLI::App* const command = app->add_subcommand(name, what);
  command->add_option("scenario", options->scenarios, scenarios)
      ->type_name("SCENARIO")
      ->required()
      ->expected(least, most);
  AddCommon(command, options);
  command->footer(kFooter);
  return command;
}

}  // namespace

std::optional<Options> ParseCommandLine(int argc, const char* const* argv) {
  Options options;
  CLI::App app(
      "Runs a fleet of report channels and the model of a collector in virtual time: what a "
      "setting, an outage or a reply does to all of them.",
      "quenor-fleet");
  app.set_version_flag("--version", "quenor-fleet " QUENOR_VERSION);
  app.require_subcommand(1);
  AddCommand(&app, "run", "run a scenario and print what came of it", "the scenario's file", 1, 1,
             &options);
  CLI::App* const compare = AddCommand(&app, "compare", "run two scenarios, and print both",
                                       "the scenarios' files", 2, 2, &options);
  CLI::App* const check = AddCommand(
      &app, "check", "run scenarios, and fail when an expectation of theirs does not hold",
      "the scenarios' files", 1, 1000, &options);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) {
      app.exit(error);
      return std::nullopt;
    }
    throw std::invalid_argument(std::string(error.what()) + "; see quenor-fleet --help");
  }
  if (*compare) options.command = Options::Command::kCompare;
  if (*check) options.command = Options::Command::kCheck;
  return options;
}

}  // namespace quenor::fleet
