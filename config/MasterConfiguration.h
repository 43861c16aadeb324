#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/FileSystem.h"
#include "common/Log.h"
#include "common/Platform.h"
#include "common/XmlDocument.h"
#include "config/ComponentConfiguration.h"
#include "config/KnownDocuments.h"
#include "config/NamedLists.h"

namespace tessard {

/// Kinds of lines of the master file.
enum ConfigurationLineType : int {
  kLineInvalid = 0,    ///< a known component name standing alone
  kLineIgnored = 1,    ///< blank, or its first word is no known component name
  kLineComment = 2,    ///< begins with "#"
  kLineComponent = 3,  ///< a known component name and at least one more word
};

/// What a component line holds.
struct ComponentNameAndPath {
  std::string name;
  std::string path;
  bool operator==(const ComponentNameAndPath&) const = default;
};

/// The jabberd instance's master file "jabberd.cfg", which lists the components and their XML files, and one
/// component configuration for each listed file. Callers address settings by dotted paths; a path's first
/// segment picks the component (the first one listed under that name), so secondary session managers are
/// reached only through `loadedComponentsForName`.
///
/// Owns the components. The pointers it hands out are valid until the next `loadAllConfigurations`,
/// `revertMasterConfiguration`, `setLoadedComponents`, `setHostDomains` or
/// `removeAllSecondarySMConfigurations`. Nothing throws; failures are results with log lines. For the thread
/// that serves the host's requests.
class NOTIFICATION_PLUGIN_MasterConfiguration : public Object {
 public:
  using Component = NOTIFICATION_PLUGIN_ComponentConfiguration;
  using ComponentLists = NamedLists<std::unique_ptr<Component>>;
  using ComponentList = ComponentLists::List;

  /// Longest master file that is read; a longer one fails to load with EFBIG.
  static constexpr std::size_t kMaximumFileSize = std::size_t{1024} * 1024;

  /// "router", "sm", "c2s", "s2s".
  static const std::vector<std::string>& componentNames();

  /// A new object for the master file at its default place, "/private/etc/jabberd_notification/jabberd.cfg".
  /// Nothing is read yet.
  static std::unique_ptr<NOTIFICATION_PLUGIN_MasterConfiguration> masterConfiguration(Platform& platform);
  static std::unique_ptr<NOTIFICATION_PLUGIN_MasterConfiguration> masterConfigurationWithPath(
      Platform& platform, std::string_view path);

  /// An object without a path; `initWithPath` makes it usable.
  explicit NOTIFICATION_PLUGIN_MasterConfiguration(Platform& platform);
  ~NOTIFICATION_PLUGIN_MasterConfiguration() override;

  void initWithPath(std::string_view path);

  const std::string& configPath() const { return configPath_; }
  void setConfigPath(std::string path) { configPath_ = std::move(path); }
  /// What the file lists. Absent until the file is read, and set absent to force that it is read again.
  const std::optional<ComponentPaths>& loadedConfigPaths() const { return loadedConfigPaths_; }
  void setLoadedConfigPaths(std::optional<ComponentPaths> paths) { loadedConfigPaths_ = std::move(paths); }
  /// The comment lines of the file, as they stand.
  const std::vector<std::string>& loadedComments() const { return loadedComments_; }
  void setLoadedComments(std::vector<std::string> comments) { loadedComments_ = std::move(comments); }
  const ComponentLists& loadedComponents() const { return loadedComponents_; }
  void setLoadedComponents(ComponentLists components) { loadedComponents_ = std::move(components); }
  /// When the file was last saved; a load does not set it.
  const std::optional<FileTime>& loadTime() const { return loadTime_; }
  void setLoadTime(std::optional<FileTime> time) { loadTime_ = time; }
  /// Whether the list of components must be written.
  bool configDirty() const { return configDirty_; }
  void setConfigDirty(bool dirty) { configDirty_ = dirty; }
  /// The documents by which the components' files are parsed.
  const KnownDocuments& knownDocuments() const { return knownDocuments_; }

  // --- Reading ---

  /// The lines of a UTF-8 file, cut at every newline character. Absent, with an error line that carries the
  /// errno value (EILSEQ for text that is not UTF-8), when the file cannot be read.
  std::optional<std::vector<std::string>> loadConfigLinesAtPath(std::string_view path) const;
  /// One of `ConfigurationLineType`.
  int getConfigurationLineType(std::string_view line) const;
  /// Name and path of a component line, without a trailing semicolon; absent with two warnings when blanks do
  /// not part the line into two words.
  std::optional<ComponentNameAndPath> parseComponentNameAndPathFromLine(std::string_view line) const;
  /// Adds a path to the listed ones unless it is there. Nothing happens before the file was read.
  void cachePathConfig(const ComponentNameAndPath& nameAndPath);
  /// Makes, loads and owns a component, and marks the master as changed. Null with an error line for a name
  /// that no class is known for.
  Component* cacheNewComponentForName_andPath(std::string_view name, std::string_view path);

  /// Reads the master file when it has not been read, or when it is newer than the last save; `reread`
  /// tells whether it was. While changes are made together (see `Changes`), that is so only for a file that
  /// has changed meanwhile, and they then fail, with an error line. False with a log line when it is missing
  /// or cannot be read; what was loaded before is then still there.
  bool loadMasterConfiguration(bool& reread);
  /// Reads the master file as above and makes the components when it was read anew; otherwise lets each
  /// component look whether its file has changed. False when the master file cannot be read.
  bool loadAllConfigurations();
  /// Makes every component anew from its file; unsaved changes are lost.
  bool revertMasterConfiguration();

  // --- Saving ---

  /// Writes the changed list through "%@.tmp" and keeps the previous file as "%@.bak", both with the
  /// services' owner and permissions. True also when there was nothing to save. False, with the list still
  /// marked as changed: when the temporary file cannot be written (error line), and when the files cannot
  /// change names or there is none to be replaced (the new content then waits in the temporary file). The
  /// file is then as it was; only when the disk also refuses to change the names back is it the previous
  /// version that waits there (error line).
  bool saveMasterConfiguration();
  /// Saves every changed component, with an error line for each that fails, and the changed master file,
  /// whose result it gives; all in one batch, flushed together. When one fails, or could not be read for a
  /// reason that may pass, the changes of the request have failed (see `Changes`).
  bool saveAllConfigurations();
  /// Append what the file is made of: the comment lines with an empty line, and the component lines.
  void copyCachedConfigurationCommentsToString(std::string& text) const;
  void copyCachedConfigurationPathsToString(std::string& text) const;

  // --- Components, by name or by the first segment of a dotted path; null when there is none ---

  const ComponentList* loadedComponentsForName(std::string_view name) const;
  Component* defaultComponentForName(std::string_view name) const;
  const std::vector<std::string>* loadedConfigPathsForName(std::string_view name) const;
  const ComponentList* loadedComponentsForPath(std::string_view path) const;
  Component* defaultComponentForPath(std::string_view path) const;

  // --- The default component's operations; see there. Without a component: nothing, absent, -1 ---

  std::optional<std::vector<MatchEntry>> getNodesForPath_withAttributes(
      std::string_view path, const std::optional<AttributeFilter>& attributes) const;
  XmlNode getRootNodeForPath(std::string_view path) const;
  std::optional<std::string> getStringValueForPath_nodeState(std::string_view path, int& nodeState) const;
  /// -1, 0 or 1.
  int getNodeStateForPath(std::string_view path) const;
  void setStringValue_forPath_nodeState(const std::optional<std::string>& value, std::string_view path,
                                        int nodeState);
  /// Sets a live value.
  void setStringValue_forPath(const std::optional<std::string>& value, std::string_view path);
  /// Switches an element on (1) or off (0) and leaves its text.
  void setNodeState_forPath(int nodeState, std::string_view path);
  void setStringValues_forPath_nodeState_setMode_replaceExisting(const std::vector<std::string>& values,
                                                                 std::string_view path, int nodeState,
                                                                 int setMode, bool replaceExisting);
  /// Replaces all like-named elements by one live element for each value.
  void setStringValues_forPath(const std::vector<std::string>& values, std::string_view path);
  void setAttributeValue_forKey_atPath_matchingAttributes(const std::optional<std::string>& value,
                                                          std::string_view key, std::string_view path,
                                                          const std::optional<AttributeFilter>& attributes);
  /// Replaces the node and marks the component as changed.
  void replaceNode_withNode_forPath(const XmlNode& oldNode, const XmlNode& newNode, std::string_view path);

  // --- Domains: one session manager each. Nothing is saved, but files are copied and deleted. A file that
  // cannot be is an error line, and the changes of the request have failed (see `Changes`) ---

  /// Lays out the session managers of these domains: the first is the primary's, every other one gets a
  /// secondary file, "sm_%@.xml" beside the primary's. All secondaries that were there before are removed
  /// with their files first. Without a session manager that would remain as the primary nothing is touched
  /// and an error line tells.
  void setHostDomains(const std::vector<std::string>& domains);
  /// Error line and nothing else without a primary. Always true.
  bool setPrimarySMDomain(std::string_view domain);
  /// Makes the secondary of a domain from the primary's file as it stands on disk; a file that is there is
  /// kept. The name is used as it is, but one that cannot be part of a file name and of a line of the master
  /// file (it is empty, too long, not UTF-8, or holds a slash, white space or a control character) is refused
  /// with an error line, so that no name can reach out of the directory. Error line and nothing else without
  /// a primary. Always true.
  bool addSecondarySMDomain(std::string_view domain);
  /// The first session manager; null when there is none.
  Component* getPrimarySMComponent() const;
  /// Forgets every session manager whose path does not end with "sm.xml" and deletes its file and backup.
  /// Always true.
  bool removeAllSecondarySMConfigurations();

 private:
  std::optional<std::string> readText(std::string_view path) const;
  bool isLater(const FileAttributes& file) const;
  bool isOwnWrite() const;
  bool isAsKnown(const FileAttributes& file, const FileVersion& version) const;
  void giveUpChanges();
  std::vector<Component*> changedComponents() const;
  void stageMaster(ReplacementBatch& batch);
  bool masterReplaced(const Replacement& saved);
  std::size_t deleteFile(const std::string& path);
  /// `addSecondarySMDomain` for each, with all files copied together.
  void addSecondarySMDomains(const std::vector<std::string>& domains);
  void makeSecondaryFiles(const std::string& primaryPath, const std::vector<std::string>& paths);
  void addSecondaryComponent(const std::string& domain, const std::string& path);
  void takeConfigLine(const std::string& line);

  Platform& platform_;
  KnownDocuments knownDocuments_;  // before the components, which borrow it
  std::string configPath_;
  std::optional<ComponentPaths> loadedConfigPaths_;
  std::size_t timesUndone_ = 0;  // when that was loaded
  std::vector<std::string> loadedComments_;
  ComponentLists loadedComponents_;
  std::optional<FileTime> loadTime_;
  bool configDirty_ = false;
  std::optional<FileVersion> readVersion_;  // what was read, or last written
  FileVersion stagedVersion_;               // the content on its way
};

}  // namespace tessard
