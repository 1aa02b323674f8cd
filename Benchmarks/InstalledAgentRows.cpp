#include "Benchmarks/AgentScene.h"
#include "Benchmarks/Footprint.h"
#include "Benchmarks/Rows.h"
#include "Rehearsal/Maker.h"

#include <fmt/format.h>

namespace benchmarks {
namespace {

namespace fs = std::filesystem;

void emptyFolder(const fs::path& folder) {
  for (const auto& entry : fs::directory_iterator(folder)) fs::remove_all(entry.path());
}

/// Agents that download a file which is no signed image: they stop when they have it.
class Downloads {
 public:
  Downloads(const Plan& plan, std::size_t bytes) : on_(plan, installList("1.79")) {
    const fs::path file = on_.scene().mac().folder() / "image";
    writeBallast(file, bytes);
    on_.serveImage(file);
  }

  double byAgent() {
    on_.scene().startAgent();
    on_.scene().reach({"Installer stopped, initial verification failed"});
    mostMemory_ = std::max(mostMemory_, footprintOf(on_.scene().agentProcessIdentifier()).mostResident);
    on_.scene().quitAgent();
    emptyFolder(on_.temporaryDirectory());
    return on_.secondsBetween("Downloading", "Initial package verification");
  }
  double byCurl() {
    const double seconds = run(on_.curl(imageURL, on_.temporaryDirectory() / "image"));
    emptyFolder(on_.temporaryDirectory());
    return seconds;
  }
  /// The most memory an agent has had so far.
  [[nodiscard]] double mostMemory() const { return mostMemory_; }

 private:
  AgentScene on_;
  double mostMemory_ = 0;
};

void resetApplication(const Plan& plan, const rehearsal::Scene& scene) {
  fs::remove_all(scene.orvik());
  rehearsal::StandInMac::installApplication(plan.prefix / "Orvik.app", scene.orvik().parent_path(), "1.79.3");
}

/// The digest of every file of a bundle, one after the other.
double digestOfBundle(const fs::path& bundle) {
  std::vector<std::string> words{"openssl", "dgst", "-sha256"};
  for (const auto& entry : fs::recursive_directory_iterator(bundle)) {
    if (entry.is_regular_file()) words.push_back(entry.path());
  }
  return run(words);
}

}  // namespace

void downloadRows(const Plan& plan, Table& table) {
  Downloads large(plan, plan.bytes(1000));
  const auto times = best(plan.times(5), [&] { return large.byAgent(); }, [&] { return large.byCurl(); });
  table.compare(fmt::format("downloading an image of {} over TLS", size(static_cast<double>(plan.bytes(1000)))),
                "curl -o", times, 1.1);
  Downloads small(plan, plan.bytes(1));
  small.byAgent();
  table.compare("most memory of the agent that did", "for " + size(static_cast<double>(plan.bytes(1))),
                {.subject = large.mostMemory(), .reference = small.mostMemory()}, 1.1, size);
}

void installRow(const Plan& plan, Table& table) {
  AgentScene on(plan, installList("1.79"));
  const fs::path image = rehearsal::Maker(on.scene(), plan.prefix / "Orvik.app")
                             .pack({.version = "1.80.0", .ballastBytes = plan.bytes(400)});
  on.serveImage(image);
  const auto subject = [&] {
    resetApplication(plan, on.scene());
    on.play("Cleaning up");
    emptyFolder(on.temporaryDirectory());
    return on.secondsBetween("Install action triggered", "Installation completed");
  };
  const auto reference = [&] {
    const fs::path folder = on.temporaryDirectory();
    const fs::path downloaded = folder / "image";
    double seconds = run(on.curl(imageURL, downloaded));
    seconds += run({"openssl", "dgst", "-sha256", downloaded});
    seconds += run({"7zz", "x", downloaded, "-o" + (folder / "volume").string()});
    seconds += run({"cp", "-a", folder / "volume", folder / "copy"});
    seconds += run({"cp", "-a", folder / "copy/Orvik/Orvik.app", folder / "Orvik.app"});
    seconds += digestOfBundle(folder / "Orvik.app");
    emptyFolder(folder);
    return seconds;
  };
  table.compare(fmt::format("a whole install, image of {}", size(static_cast<double>(fs::file_size(image)))),
                "curl, dgst, 7zz x, cp -a, cp -a, dgst", best(plan.times(4), subject, reference), 1.15);
}

void startRow(const Plan& plan, Table& table) {
  AgentScene on(plan, emptyList);
  const auto subject = [&] {
    const auto begin = std::chrono::steady_clock::now();
    on.play("Validation succeeded with no updates");
    return std::chrono::duration<double>(on.lastListRequest() - begin).count();
  };
  const auto reference = [&] {
    const auto begin = std::chrono::steady_clock::now();
    run(on.curl(fmt::format("https://{}/emergency_update_list.json", listHost), "/dev/null"));
    return std::chrono::duration<double>(on.lastListRequest() - begin).count();
  };
  table.compare("from the process's start to its list request", "curl, the same",
                best(plan.times(25), subject, reference), 1.5);
}

}  // namespace benchmarks
