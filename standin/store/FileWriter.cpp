#include "standin/store/FileWriter.h"

#include "standin/store/Bodies.h"

namespace kzv::standin {

bool writeText(Store::Writer& writer, std::int64_t tree, const NormalPath& path, std::string_view text,
               std::int64_t modified) {
  TreeEditor editor(writer, tree);
  const auto existing = editor.tree().find(path.lower);
  if (existing && existing->isFolder()) return false;
  const auto parent = editor.ensureFolder(path.parent());
  if (!parent) return false;
  IncomingBody body(writer.store().incomingFolder());
  body.append(text);
  const FileContent content{storeContent(writer, body), static_cast<std::int64_t>(text.size()), modified,
                            modified};
  if (existing) {
    editor.replaceFile(*existing, content);
  } else {
    editor.addFile(path, *parent, content);
  }
  return true;
}

}  // namespace kzv::standin
