// kapsel: mux media into Matroska/WebM through the formatter plug-in; inspect, edit and optimise files.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>

#include "tools/cli_support.h"
#include "tools/commands.h"

using namespace kapsel_cli;

namespace {

// -1 when the command line is good; otherwise the exit status, after help, the version or one line on what is wrong.
int parseCommandLine(CLI::App& app, int argc, char** argv) {
  // The first word that is not an option names the command.
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (!word.empty() && word[0] == '-') continue;
    const auto known = app.get_subcommands([&](CLI::App* c) { return c->check_name(word); });
    if (known.empty()) return usageError("unknown command '" + word + "'");
    break;
  }
  if (argc == 1) {
    std::string names;
    for (const auto* c : app.get_subcommands([](CLI::App*) { return true; }))
      names += (names.empty() ? "" : ", ") + c->get_name();
    return usageError("name a command: " + names);
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForVersion& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    std::string message = e.what();
    std::replace(message.begin(), message.end(), '\n', ' ');
    while (!message.empty() && message.back() == ' ') message.pop_back();
    std::string command = "kapsel";
    for (const auto* c : app.get_subcommands()) command += " " + c->get_name();
    note(message + " (see " + command + " --help)");
    return kExitUsage;
  }
  return -1;
}

// Each occurrence of a repeatable option takes exactly one value, so that "--meta A=B input" leaves the input alone.
CLI::Option* repeatable(CLI::Option* option) {
  return option->expected(1)->allow_extra_args(false)->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
}

}  // namespace

// Read by jemalloc when the program is linked with it (ignored otherwise): one arena for our two threads, and freed
// pages go back within a second, so that muxing an hour needs no more memory than muxing a minute.
extern "C" {
const char* malloc_conf = "narenas:1,dirty_decay_ms:1000,muzzy_decay_ms:0";
}

int main(int argc, char** argv) {
  CLI::App app{"kapsel - write, inspect, edit and optimise Matroska and WebM files"};
  app.set_version_flag("--version", std::string("kapsel ") + KAPSEL_VERSION);
  app.require_subcommand(1);

  MuxOptions mux;
  std::vector<std::string> metaArgs, chapterArgs, mapArgs, languageArgs, nameArgs, defaultArgs;
  auto* muxCmd = app.add_subcommand("mux", "Write the video, audio and subtitle streams of the inputs into one file");
  muxCmd->add_option("inputs", mux.inputs, "Input media files (anything libavformat opens; - reads standard input)")
      ->required();
  muxCmd->add_option("-o,--output", mux.output, "Output file (.webm gives WebM, anything else Matroska)")->required();
  muxCmd->add_option("--format", mux.format, "Output kind regardless of the extension")->check(CLI::IsMember({"mkv", "webm"}));
  // A flag that also takes =PATH, so that the word after it stays an input.
  auto* pluginFlag = muxCmd->add_flag("--plugin{}", mux.plugin,
                                      "Mux through the formatter module (one video, one audio stream); =PATH names it");
  muxCmd->add_flag("--no-video", mux.noVideo, "Leave video out");
  muxCmd->add_flag("--no-audio", mux.noAudio, "Leave audio out");
  muxCmd->add_option("--video-stream", mux.videoStream, "Keep only this video stream (its index in the first input that has it)");
  muxCmd->add_option("--audio-stream", mux.audioStream, "Keep only this audio stream (its index in the first input that has it)");
  repeatable(muxCmd->add_option("--map", mapArgs, "Keep stream INPUT:STREAM (0-based; repeatable, in output order)"));
  repeatable(muxCmd->add_option("--language", languageArgs, "Language TRACK:LANG of output track TRACK (1-based; ISO 639-2)"));
  repeatable(muxCmd->add_option("--track-name", nameArgs, "Name TRACK:NAME of output track TRACK (1-based)"));
  repeatable(muxCmd->add_option("--default-track", defaultArgs, "Default flag TRACK:0|1 of output track TRACK (1-based)"));
  repeatable(muxCmd->add_option("--meta", metaArgs, "Metadata NAME=VALUE (repeatable)"));
  repeatable(muxCmd->add_option("--chapter", chapterArgs, "Chapter SECONDS=NAME (repeatable)"));
  muxCmd->add_option("--keyframe-interval", mux.keyframeInterval, "Key-frame interval the compressor reports");
  muxCmd->add_flag("-q,--quiet", mux.quiet, "No progress and no summary; only errors");
  muxCmd->add_flag("-v,--verbose", mux.verbose, "Also show the formatter module's or the writer's summary lines");
  addProgressOption(muxCmd, mux.progress);

  InfoOptions info;
  auto* infoCmd = app.add_subcommand("info", "Print the structure and tracks of a Matroska or WebM file");
  infoCmd->add_option("file", info.file, "File to inspect")->required();
  infoCmd->add_option("--depth", info.depth, "Deepest level printed (0 = top level only)");
  auto* blocksFlag = infoCmd->add_flag("--blocks", info.blocks, "Also list every block");
  infoCmd->add_flag("--no-blocks", info.noBlocks, "Leave blocks out (the default)")->excludes(blocksFlag);
  infoCmd->add_flag("--json", info.json, "Print a JSON summary (tracks, chapters, tags, attachments)");
  infoCmd->add_flag("--tree", info.tree, "With --json: the element tree instead of the summary");
  infoCmd->add_flag("--seek-head", info.seekHead, "Load only what the seek head names");
  addProgressOption(infoCmd, info.progress);

  OptimizeOptions opt;
  auto* optCmd = app.add_subcommand("optimize", "Drop padding and CRC-32 elements, re-lace blocks, and save (lossless)");
  optCmd->add_option("input", opt.input, "Input file")->required();
  optCmd->add_option("output", opt.output, "Output file")->required();
  optCmd->add_flag("--crc32", opt.crc32, "Write CRC-32 elements (RFC 8794 byte order) instead of optimising");
  optCmd->add_flag("--force", opt.force, "Save a damaged input anyway, without the parts that could not be read");

  // Track options belong to the --track before them, so edit reads its arguments in order itself.
  auto* editCmd = app.add_subcommand("edit", "Change title, tracks, tags and chapters in place (see kapsel edit --help)");
  editCmd->prefix_command();
  editCmd->set_help_flag();

  RepairOptions repair;
  auto* repairCmd = app.add_subcommand("repair", "Mend in place a file cut off while being written (sizes, Cues, Duration)");
  repairCmd->add_option("file", repair.file, "File to repair")->required();
  repairCmd->add_flag("--dry-run", repair.dryRun, "Say what would be written, write nothing");
  repairCmd->add_flag("-q,--quiet", repair.quiet, "No progress and no summary; only errors");
  addProgressOption(repairCmd, repair.progress);

  if (const int status = parseCommandLine(app, argc, argv); status >= 0) return status;

  installSignalHandlers();
  if (*muxCmd) {
    if (mux.output == "-") return usageError("-o - is not possible: a Matroska file is finished by seeking back; name a file");
    if (std::count(mux.inputs.begin(), mux.inputs.end(), "-") > 1) return usageError("standard input (-) can be read only once");
    for (const auto& m : metaArgs) {
      const size_t eq = m.find('=');
      if (eq == std::string::npos || eq == 0) return usageError("--meta takes NAME=VALUE, not '" + m + "'");
      mux.meta.emplace_back(m.substr(0, eq), m.substr(eq + 1));
    }
    for (const auto& c : chapterArgs) {
      const size_t eq = c.find('=');
      char* end = nullptr;
      const std::string number = eq == std::string::npos ? "" : c.substr(0, eq);
      const double seconds = number.empty() ? -1 : std::strtod(number.c_str(), &end);
      if (eq == std::string::npos || seconds < 0 || !end || *end) return usageError("--chapter takes SECONDS=NAME, not '" + c + "'");
      mux.chapters.emplace_back(seconds, c.substr(eq + 1));
    }
    mux.usePlugin = pluginFlag->count() > 0;
    // NUMBER:REST with NUMBER a whole number from `least`; false when the argument is not of that form.
    auto numbered = [](const std::string& arg, unsigned least, unsigned& number, std::string& rest) {
      const size_t colon = arg.find(':');
      if (colon == std::string::npos || colon == 0 || colon > 9) return false;
      const std::string digits = arg.substr(0, colon);
      if (digits.find_first_not_of("0123456789") != std::string::npos) return false;
      number = static_cast<unsigned>(std::stoul(digits));
      rest = arg.substr(colon + 1);
      return number >= least;
    };
    unsigned number = 0;
    std::string rest;
    for (const auto& m : mapArgs) {
      if (!numbered(m, 0, number, rest) || rest.empty() || rest.size() > 9 ||
          rest.find_first_not_of("0123456789") != std::string::npos)
        return usageError("--map takes INPUT:STREAM (numbers from 0), not '" + m + "'");
      if (number >= mux.inputs.size())
        return usageError("--map " + m + ": input " + std::to_string(number) + " is not given (inputs count from 0)");
      mux.maps.emplace_back(static_cast<int>(number), std::stoi(rest));
    }
    for (const auto& l : languageArgs) {
      if (!numbered(l, 1, number, rest) || rest.size() != 3 ||
          !std::all_of(rest.begin(), rest.end(), [](char c) { return c >= 'a' && c <= 'z'; }))
        return usageError("--language takes TRACK:LANG (track from 1, a three-letter ISO 639-2 code), not '" + l + "'");
      mux.languages.emplace_back(number, rest);
    }
    for (const auto& n : nameArgs) {
      if (!numbered(n, 1, number, rest)) return usageError("--track-name takes TRACK:NAME (track from 1), not '" + n + "'");
      mux.trackNames.emplace_back(number, rest);
    }
    for (const auto& d : defaultArgs) {
      if (!numbered(d, 1, number, rest) || (rest != "0" && rest != "1"))
        return usageError("--default-track takes TRACK:0 or TRACK:1 (track from 1), not '" + d + "'");
      mux.defaultTracks.emplace_back(number, rest == "1");
    }
    if (mux.usePlugin && (!mux.maps.empty() || !mux.languages.empty() || !mux.trackNames.empty() || !mux.defaultTracks.empty()))
      return usageError("--map, --language, --track-name and --default-track do not go with --plugin");
    return runMux(mux, argv[0]);
  }
  if (*infoCmd) return runInfo(info);
  if (*editCmd) return runEdit(editCmd->remaining());
  if (*repairCmd) return runRepair(repair);
  return runOptimize(opt);
}
