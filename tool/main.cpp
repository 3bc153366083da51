#include <CLI/CLI.hpp>

int main(int argc, char** argv) {
  CLI::App app("Looks into daemons that run on libZelBrelo", "brelo");
  app.require_subcommand(1);
  CLI11_PARSE(app, argc, argv);
}
