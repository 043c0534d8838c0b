// One fetched listing on its way into the tree.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fshelper/OmbraFileSystem.h"
#include "fshelper/StAbstractConnection.h"

namespace ombra {

// Replaces a folder's children by what the server listed: known items keep their nodes, links out of the
// volume become what they lead to. Made before the server is asked, used on one thread.
class OmbraFileSystem::Merge {
 public:
  Merge(OmbraFileSystem& fileSystem, StAbstractConnection& connection,
        std::shared_ptr<KCRemoteFileNode> folder, NameForm form);

  // Asks the server where links lead, then takes the folder's lock, with which the server is not called.
  // `known`: the listing that the server was asked with.
  void run(FolderContents fetched, uint64_t known);

  // To be called once the listing is in the tree, or has failed. True when it is out of date already, since
  // something was made or removed here meanwhile.
  bool endFetch() { return iFetch.end(); }
  // Whether entries came or went that the kernel did not ask for itself.
  bool hasNews() const { return iHasNews; }
  // The answer: in the listing's order, decomposed or as listed (then each once).
  std::vector<std::string> takeNames() { return std::move(iNames); }

 private:
  using Node = std::shared_ptr<KCRemoteFileNode>;

  // All three with the folder's lock held. Answers what is gone.
  std::vector<Node> mergeWhole(const FolderContents& fetched);
  void mergeNews(const FolderContents& news, uint64_t known);
  // False for what is left out.
  bool mergeNode(Node node, const OFSNodeSet* old, OFSNodeSet& contents);
  void addName(const KCNode& node);
  static void knowAsEmpty(KCRemoteFileNode& folder, uint64_t number);
  std::vector<Node> keepOrLeave(const OFSNodeSet& old, OFSNodeSet& contents);
  void forget(const std::vector<Node>& gone);
  void detachFiles(const Node& node);

  Node resolved(const Node& link);
  Node nodeOutside(const Node& link, const std::string& target, bool isDirectory);
  std::optional<uint64_t> sizeOfItem(const std::string& path);

  OmbraFileSystem& iFileSystem;
  StAbstractConnection& iConnection;
  const Node iFolder;
  const NameForm iForm;
  OFSNodeChanges::Fetch iFetch;
  bool iHasNews = false;
  std::vector<std::string> iNames;
  // Sizes of the entries of folders outside the volume, each folder listed once per merge.
  std::map<std::string, std::map<std::string, std::optional<uint64_t>>> iOutside;
};

}  // namespace ombra
