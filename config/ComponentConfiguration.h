#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/DurableReplace.h"
#include "common/FileSystem.h"
#include "common/Log.h"
#include "common/Platform.h"
#include "common/XmlDocument.h"
#include "config/KnownDocuments.h"

namespace tessard {

/// State of an addressed node.
enum NodeState : int {
  kNodeNotFound = -1,    ///< what callers preset; lookups leave it untouched when nothing is found
  kNodeSwitchedOff = 0,  ///< stands in the file as a comment that holds the element's markup
  kNodeLive = 1,
};

/// The one set mode that adds anything.
inline constexpr int kSetModeAdd = 1;

/// Attribute names with the values they must have, in the order in which they are tried.
using AttributeFilter = std::vector<std::pair<std::string, std::string>>;

/// One result of a lookup.
struct MatchEntry {
  XmlNode node;        ///< the element, or the comment that stands for it
  std::string path;    ///< full dotted path of the match
  std::string parent;  ///< path of the parent
  int state;           ///< `kNodeLive` or `kNodeSwitchedOff`
};

/// The XML configuration file of one jabberd component, held as a tree whose elements are addressed by dotted
/// paths. The first segment of a path is the name of the root element ("sm.storage.sqlite.dbname"); the root
/// itself cannot be addressed. An element is switched off by putting a comment that holds its name and text
/// in its place, and on again by the reverse; either way it moves to the end of its parent.
///
/// Nothing throws and nothing is reported but by results and log lines: without a document lookups find
/// nothing and changes change nothing. Text that no XML document can hold (`isXmlText`) is refused by every
/// change with an error line, and leaves the tree as it was. Who changes a node by its handle must mark the
/// document dirty. Node handles stay usable after a reload, but
/// then belong to the dropped tree. For the thread that serves the host's requests.
class NOTIFICATION_PLUGIN_ComponentConfiguration : public Object {
 public:
  /// Longest component file that is read; a longer one fails to load with EFBIG.
  static constexpr std::size_t kMaximumFileSize = std::size_t{16} * 1024 * 1024;

  /// A loaded object for "router", "sm", "s2s" or "c2s"; null for every other name. The object is there also
  /// when its file could not be loaded. Its files are parsed by way of the known documents, which are
  /// borrowed for its life; null for none.
  static std::unique_ptr<NOTIFICATION_PLUGIN_ComponentConfiguration> componentConfigurationForName_andPath(
      Platform& platform, std::string_view name, const std::optional<std::string>& path,
      KnownDocuments* known = nullptr);

  /// The second half of the above: an object of the class with that name, null when there is no such class.
  static std::unique_ptr<NOTIFICATION_PLUGIN_ComponentConfiguration> instanceOfClassNamed(
      Platform& platform, std::string_view className, std::string_view name,
      const std::optional<std::string>& path, KnownDocuments* known = nullptr);

  /// An object without name, path or document; `initWithName_andPath` makes it usable.
  explicit NOTIFICATION_PLUGIN_ComponentConfiguration(Platform& platform);

  /// Takes name and path and loads the file. An absent path is tolerated: nothing is ever loaded or saved.
  void initWithName_andPath(std::string_view name, const std::optional<std::string>& path);

  const std::string& configName() const { return configName_; }
  void setConfigName(std::string name) { configName_ = std::move(name); }
  const std::optional<std::string>& configPath() const { return configPath_; }
  void setConfigPath(std::optional<std::string> path) { configPath_ = std::move(path); }
  const std::optional<XmlDocument>& configXMLDocument() const { return configXMLDocument_; }
  void setConfigXMLDocument(std::optional<XmlDocument> document);
  /// The moment of the last attempt to load, successful or not.
  const std::optional<FileTime>& loadTime() const { return loadTime_; }
  void setLoadTime(std::optional<FileTime> time) { loadTime_ = time; }
  /// Whether the tree was changed since it was loaded or saved.
  bool configDirty() const { return configDirty_; }
  void setConfigDirty(bool dirty) { configDirty_ = dirty; }

  /// Whether there is no document because the last load failed for a reason that may pass.
  bool couldNotBeRead() const { return couldNotBeRead_; }

  /// Reads the file when no document is held or when the file is newer than the last load (unsaved changes
  /// are then discarded). Always true; a file that cannot be read or parsed leaves no document and two error
  /// lines. A file that only this object's own last save has changed is not parsed again, and one whose
  /// content is known is not read.
  bool loadDocument();

  /// Writes the changed tree through "%@.tmp", keeps the previous file as "%@.bak", and gives the new one the
  /// services' owner and permissions. True also when there was nothing to save. False, with the tree still
  /// marked as changed: without a document, when the tree cannot be written as XML, when the temporary file
  /// cannot be written (error line), and when the files cannot change names or there is none to be replaced
  /// (the new content then waits in the temporary file). The file is then as it was; only when the disk also
  /// refuses to change the names back is it the previous version that waits there (error line). False with an
  /// error line, too, when the file is not the version that was read: somebody's edit is kept and no
  /// temporary.
  bool saveDocument();

  /// The two halves of saving changed documents together. The first puts the new content into the batch; when
  /// it fails, as it does without a document and when the tree cannot be written as XML, the document has no
  /// part in it. The second takes what became of the replacement, and fails as `saveDocument` does.
  bool stageDocument(ReplacementBatch& batch);
  bool documentReplaced(const Replacement& saved);

  /// False with an error line when there is no file at the path, with a debug line when there is no path.
  bool documentFileExists() const;

  /// True without a document, and with an info line when the file's modification time is strictly later than
  /// `loadTime`. A file whose time cannot be read counts as unchanged.
  bool documentChangedSinceLastLoad() const;

  /// The root element, empty without a document.
  XmlNode getRootNode() const;
  /// Children of the root, of all kinds.
  std::vector<XmlNode> getChildNodes() const;
  std::vector<XmlNode> getChildNodesForNode(const XmlNode& node) const;

  /// All matches of a path: the like-named children, live or switched off and in document order, of the first
  /// parent that has any. Absent when there is none. Attributes narrow the live matches only.
  std::optional<std::vector<MatchEntry>> getNodesForPath_withAttributes(
      std::string_view path, const std::optional<AttributeFilter>& attributes) const;
  /// The same below any element, whose own path is `basePath`.
  std::optional<std::vector<MatchEntry>> getChildNodesForPath_fromBase_basePath_withAttributes(
      std::string_view path, const XmlNode& base, std::string_view basePath,
      const std::optional<AttributeFilter>& attributes) const;

  /// Whether the element has the attribute and value of the filter's last entry; earlier entries are tried
  /// but do not count. False for an empty filter.
  bool matchNode_withAttributes(const XmlNode& element, const AttributeFilter& attributes) const;

  /// The first match and its state. Without a match an empty handle; `nodeState` is then left untouched.
  XmlNode getNodeForPath_nodeState(std::string_view path, int& nodeState) const;
  /// The text of the first match when it is live.
  std::optional<std::string> getNodeValueForPath(std::string_view path) const;
  /// The text of the first match, `nodeState` -1 and absent without one. For a switched-off node this is the
  /// comment's whole text, so look at the state.
  std::optional<std::string> getStringValueForPath_nodeState(std::string_view path, int& nodeState) const;

  /// Brings the first match of a path to the wanted state, and a live one to the value when there is one.
  /// A missing node is made when its parent is live and is not the root element; for a state other than 1 as
  /// a comment. A node that is to be off is switched off, or left off, whatever the value.
  void setStringValue_forPath_nodeState(const std::optional<std::string>& value, std::string_view path,
                                        int nodeState);

  /// With `setMode` 1: adds one node per value at the end of the parent of the first match (or of the parent
  /// that the path names), after taking all matches away when `replaceExisting`. No other mode changes
  /// anything.
  void setStringValues_forPath_nodeState_setMode_replaceExisting(const std::vector<std::string>& values,
                                                                 std::string_view path, int nodeState,
                                                                 int setMode, bool replaceExisting);

  /// Sets the attribute on every live match, or removes it for an absent value. Switched-off matches have no
  /// attributes and are skipped.
  void setAttributeValue_forKey_atPath_matchingAttributes(const std::optional<std::string>& value,
                                                          std::string_view key, std::string_view path,
                                                          const std::optional<AttributeFilter>& attributes);

  /// The comment that stands for an element: its name and whole text, attributes and structure lost. Empty
  /// for anything but an element.
  XmlNode commentNodeWithElementNode(const XmlNode& element) const;
  /// The element that a comment stands for, in a tree of its own; empty for an ordinary comment.
  XmlNode elementNodeWithCommentNode(const XmlNode& comment) const;
  /// State 1: a new element; any other state: a new comment in the long form. Empty without a name, and for
  /// text that XML cannot hold. The value is put into a comment as it stands, without escaping.
  XmlNode newNodeWithName_stringValue_nodeState(std::string_view name,
                                                const std::optional<std::string>& value, int nodeState) const;

  /// Takes the old node out and, when there is a new one, appends that as the last child of the old one's
  /// parent. Does not mark the tree as changed.
  void replaceNode_withNode(const XmlNode& oldNode, const XmlNode& newNode);

  /// The last segment of a path.
  std::string nodeNameFromPath(std::string_view path) const;
  /// All segments but the last; empty for a path without a dot.
  std::string parentPathFromPath(std::string_view path) const;

 private:
  std::optional<std::vector<MatchEntry>> matchingChildren(
      std::string_view path, const XmlNode& base, const std::optional<AttributeFilter>& attributes) const;
  Result<FileAttributes> lookAtFile() const;
  void giveUpChanges();
  void readDocument(const std::optional<FileAttributes>& file, FileTime now);
  void takeDocument(Result<XmlDocument> document, const std::optional<FileVersion>& version);
  void addMissingNode(const std::optional<std::string>& value, std::string_view path, int nodeState);
  void switchOn(const XmlNode& comment, const std::optional<std::string>& value);
  bool refuseUnlessXmlText(const std::optional<std::string>& value, std::string_view path) const;
  bool isChanged(const std::optional<FileAttributes>& file) const;
  bool isTreeOfFile() const;
  bool isAsSaved(const FileAttributes& file, FileTime now) const;
  bool isAsSaved(const FileVersion& version) const;
  Result<XmlDocument> parsed(std::string bytes) const;

  Platform& platform_;
  std::string configName_;
  std::optional<std::string> configPath_;
  std::optional<XmlDocument> configXMLDocument_;
  std::optional<FileTime> loadTime_;
  bool configDirty_ = false;
  KnownDocuments* known_ = nullptr;
  std::optional<FileVersion> readVersion_;  // what the tree was read from, or last written to
  bool couldNotBeRead_ = false;
  bool treeIsAsSaved_ = false;  // the tree was written to the file and has not changed since
  FileVersion stagedVersion_;   // the content on its way
};

/// One class for each kind of component; they add nothing.
class NOTIFICATION_PLUGIN_RouterConfigurationParser : public NOTIFICATION_PLUGIN_ComponentConfiguration {
  using NOTIFICATION_PLUGIN_ComponentConfiguration::NOTIFICATION_PLUGIN_ComponentConfiguration;
};

class NOTIFICATION_PLUGIN_SMConfigurationParser : public NOTIFICATION_PLUGIN_ComponentConfiguration {
  using NOTIFICATION_PLUGIN_ComponentConfiguration::NOTIFICATION_PLUGIN_ComponentConfiguration;
};

class NOTIFICATION_PLUGIN_S2SConfigurationParser : public NOTIFICATION_PLUGIN_ComponentConfiguration {
  using NOTIFICATION_PLUGIN_ComponentConfiguration::NOTIFICATION_PLUGIN_ComponentConfiguration;
};

class NOTIFICATION_PLUGIN_C2SConfigurationParser : public NOTIFICATION_PLUGIN_ComponentConfiguration {
  using NOTIFICATION_PLUGIN_ComponentConfiguration::NOTIFICATION_PLUGIN_ComponentConfiguration;
};

}  // namespace tessard
