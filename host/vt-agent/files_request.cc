// Reading the attributes of a files promise; see files_request.h.
#include "vt-agent/files_request.h"

#include <vector>

#include <veltrane/json.h>
#include <veltrane/rlist.h>
#include <veltrane/string_lib.h>

#include "libveltrane/promise_attributes.h"

namespace veltrane {

namespace {

// The members of an attribute that is a map; one that is absent has none.
class Settings {
  public:
    Settings(const Promise *expanded, const char *attribute) : attribute_(attribute)
    {
        const Constraint *constraint = PromiseGetConstraint(expanded, attribute);
        if (constraint != nullptr && constraint->rval.type == RVAL_TYPE_CONTAINER) {
            map_ = static_cast<const JsonElement *>(constraint->rval.item);
        }
    }

    // The text of a member; nothing when it is absent. A list in its place is trouble.
    Trouble Text(const char *name, std::optional<std::string> *ret_text) const
    {
        if (map_ == nullptr || JsonObjectGet(map_, name) == nullptr) {
            return std::nullopt;
        }
        const char *text = JsonObjectGetAsString(map_, name);
        if (text == nullptr) {
            return "'" + std::string(name) + "' of its '" + attribute_ + "' is no text";
        }
        *ret_text = text;
        return std::nullopt;
    }

    Trouble Truth(const char *name, bool *ret_truth) const
    {
        std::optional<std::string> text;
        Trouble trouble = Text(name, &text);
        return trouble.has_value() || !text.has_value() ? trouble : ToTruth(name, text->c_str(), ret_truth);
    }

    static Trouble ToTruth(const char *name, const char *text, bool *ret_truth)
    {
        const bool truth = StringEqual(text, "true") || StringEqual(text, "yes");
        if (!truth && !StringEqual(text, "false") && !StringEqual(text, "no")) {
            return "its '" + std::string(name) + "' is neither true nor false: '" + (text != nullptr ? text : "") + "'";
        }
        *ret_truth = truth;
        return std::nullopt;
    }

    const JsonElement *Map() const { return map_; }

  private:
    const char *attribute_;
    const JsonElement *map_ = nullptr;
};

// An attribute that is a text; nothing when it is absent.
Trouble TakeText(const Promise *expanded, const char *attribute, std::optional<std::string> *ret_text)
{
    if (PromiseGetConstraint(expanded, attribute) == nullptr) {
        return std::nullopt;
    }
    const char *text = AttributeText(expanded, attribute);
    if (text == nullptr) {
        return "its '" + std::string(attribute) + "' is no text";
    }
    *ret_text = text;
    return std::nullopt;
}

Trouble TakeTruth(const Promise *expanded, const char *attribute, std::optional<bool> *ret_truth)
{
    if (PromiseGetConstraint(expanded, attribute) == nullptr) {
        return std::nullopt;
    }
    bool truth = false;
    Trouble trouble = Settings::ToTruth(attribute, AttributeText(expanded, attribute), &truth);
    if (!trouble.has_value()) {
        *ret_truth = truth;
    }
    return trouble;
}

Trouble TakePromiser(const Promise *expanded, FilesRequest *request)
{
    request->path = expanded->promiser;
    if (request->path.empty() || request->path[0] != '/') {
        return "it is no absolute path";
    }
    request->wants_directory = request->path.back() == '/';
    return std::nullopt;
}

Trouble TakeContent(const Promise *expanded, FilesRequest *request)
{
    return TakeText(expanded, "content", &request->content);
}

Trouble TakeTruths(const Promise *expanded, FilesRequest *request)
{
    std::optional<bool> remove;
    std::optional<bool> move_obstructions;
    Trouble trouble = TakeTruth(expanded, "create", &request->create);
    if (!trouble.has_value()) {
        trouble = TakeTruth(expanded, "delete", &remove);
    }
    if (!trouble.has_value()) {
        trouble = TakeTruth(expanded, "move_obstructions", &move_obstructions);
    }
    request->remove = remove.value_or(false);
    request->attr.move_obstructions = move_obstructions.value_or(false);
    return trouble;
}

Trouble TakePerms(const Promise *expanded, FilesRequest *request)
{
    const Settings settings(expanded, "perms");
    std::optional<std::string> mode;
    std::optional<std::string> owner;
    std::optional<std::string> group;
    for (const auto &[name, text] :
         {std::pair("mode", &mode), std::pair("owner", &owner), std::pair("group", &group)}) {
        if (Trouble trouble = settings.Text(name, text)) {
            return trouble;
        }
    }
    if (mode.has_value()) {
        request->perms.mode = ParseMode(*mode);
        if (!request->perms.mode.has_value()) {
            return "its mode '" + *mode + "' is not one to four octal digits";
        }
    }
    uid_t user = 0;
    if (owner.has_value()) {
        if (Trouble trouble = FindUser(*owner, &user)) {
            return trouble;
        }
        request->perms.owner = user;
    }
    gid_t number = 0;
    if (group.has_value()) {
        if (Trouble trouble = FindGroup(*group, &number)) {
            return trouble;
        }
        request->perms.group = number;
    }
    return std::nullopt;
}

Trouble TakeBackup(const Settings &settings, BackupOption *ret_backup)
{
    std::optional<std::string> text;
    if (Trouble trouble = settings.Text("backup", &text)) {
        return trouble;
    }
    const std::string word = text.value_or("true");
    if (word != "true" && word != "false" && word != "timestamp") {
        return "'backup' of its 'copy_from' is neither true, false nor timestamp: '" + word + "'";
    }
    *ret_backup = word == "true"    ? BACKUP_OPTION_BACKUP
                  : word == "false" ? BACKUP_OPTION_NONE
                                    : BACKUP_OPTION_TIMESTAMP;
    return std::nullopt;
}

Trouble TakeCopyFrom(const Promise *expanded, FilesRequest *request)
{
    const Settings settings(expanded, "copy_from");
    if (settings.Map() == nullptr) {
        Trouble trouble = TakeText(expanded, "copy_from", &request->source);
        if (trouble.has_value() || !request->source.has_value()) {
            return trouble;
        }
    }
    FileCopy &copy = request->attr.copy;
    Trouble trouble = settings.Text("source", &request->source);
    for (const auto &[name, truth] : {std::pair("stealth", &copy.stealth), std::pair("verify", &copy.verify)}) {
        if (!trouble.has_value()) {
            trouble = settings.Truth(name, truth);
        }
    }
    if (!trouble.has_value()) {
        trouble = TakeBackup(settings, &copy.backup);
    }
    if (trouble.has_value() || !request->source.has_value()) {
        return trouble;
    }
    const JsonElement *servers = settings.Map() != nullptr ? JsonObjectGetAsArray(settings.Map(), "servers") : nullptr;
    Rlist *list = nullptr;
    for (size_t i = 0; servers != nullptr && i < JsonLength(servers); ++i) {
        RlistAppendScalar(&list, JsonPrimitiveGetAsString(JsonArrayGet(servers, i)));
    }
    request->servers.reset(list);
    copy.servers = list;
    return request->source->starts_with('/') ? std::nullopt
                                             : Trouble("its source '" + *request->source + "' is no absolute path");
}

Trouble TakeDepthSearch(const Promise *expanded, FilesRequest *request)
{
    const Settings settings(expanded, "depth_search");
    TreeBounds bounds;
    if (settings.Map() == nullptr) {
        std::optional<bool> truth;
        Trouble trouble = TakeTruth(expanded, "depth_search", &truth);
        if (trouble.has_value() || !truth.value_or(false)) {
            return trouble;
        }
    } else {
        std::optional<std::string> depth;
        if (Trouble trouble = settings.Text("depth", &depth)) {
            return trouble;
        }
        if (Trouble trouble = settings.Truth("cross_file_systems", &bounds.cross_file_systems)) {
            return trouble;
        }
        long number = bounds.depth;
        if (depth.has_value() && (StringToLong(depth->c_str(), &number) != 0 || number < 1 || number > kDeepestTree)) {
            return "its depth '" + *depth + "' is no number from 1 to " + std::to_string(kDeepestTree);
        }
        bounds.depth = static_cast<int>(number);
        bounds.deeper_is_trouble = !depth.has_value();
    }
    request->depth_search = bounds;
    request->attr.havedepthsearch = true;
    request->wants_directory = true;
    return std::nullopt;
}

Trouble TakeChanges(const Promise *expanded, FilesRequest *request)
{
    const Settings settings(expanded, "changes");
    request->watches_changes = PromiseGetConstraint(expanded, "changes") != nullptr;
    std::optional<std::string> repository;
    Trouble trouble = settings.Truth("report_diffs", &request->report_diffs);
    if (!trouble.has_value()) {
        trouble = settings.Text("repository", &repository);
    }
    if (trouble.has_value() || !repository.has_value()) {
        return trouble;
    }
    request->repository = *repository;
    return repository->starts_with('/') ? std::nullopt
                                        : Trouble("its repository '" + *repository + "' is no absolute path");
}

// Attributes that are good by themselves and make no sense together.
Trouble Contradiction(const Promise *, FilesRequest *request)
{
    if (request->content.has_value() && request->source.has_value()) {
        return "'content' and 'copy_from' contradict each other";
    }
    const bool makes = request->content.has_value() || request->source.has_value() || request->create.value_or(false);
    if (request->remove && makes) {
        return "what is to be deleted cannot be made as well";
    }
    if (request->content.has_value() && request->wants_directory) {
        return "a directory has no 'content'";
    }
    if (request->source.has_value() && request->wants_directory && !request->depth_search.has_value()) {
        return "copying a directory needs 'depth_search'";
    }
    return std::nullopt;
}

}  // namespace

Trouble UnderstandFiles(const Promise *expanded, FilesRequest *ret_request)
{
    ret_request->attr = CommonAttributes(expanded);
    for (const auto take : {TakePromiser, TakeContent, TakeTruths, TakePerms, TakeCopyFrom, TakeDepthSearch,
                            TakeChanges, Contradiction}) {
        if (Trouble trouble = take(expanded, ret_request)) {
            return trouble;
        }
    }
    return std::nullopt;
}

}  // namespace veltrane
