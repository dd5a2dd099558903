#pragma once

#include <sys/types.h>

#include <map>
#include <memory>
#include <string>

#include "Tree.h"

namespace faults {

/// What a disk would hold of a folder tree if the power went: contents as they were last synced, folder
/// entries as they were when their folder was last synced.
class PowerModel {
  public:
    explicit PowerModel(std::string root);

    void created(int file);
    void synced(int file);
    /// The tree after a power cut (see Plan::luckyFolders).
    [[nodiscard]] Tree afterCut(unsigned luckyFolders) const;

  private:
    using Node = std::shared_ptr<Entry>;
    using Listing = std::map<std::string, Node>;

    [[nodiscard]] Listing listingOf(const std::string& folder) const;
    void add(Tree& tree, const std::string& folder, unsigned luckyFolders) const;

    std::string root_;
    std::map<ino_t, Node> nodes_;
    std::map<std::string, Listing> durable_;
};

}  // namespace faults
