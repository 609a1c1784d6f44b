// The account as a folder that any program uses: `kzv mount` against a running kzv-service.
#include <sys/mman.h>
#include <sys/statvfs.h>
#include <sys/xattr.h>

#include "tests/MountFixture.h"

TEST_F(MountTest, AnswersAsAPosixFileSystem) {
  for (const char* path : {"/d/f", "/full/x", "/Case/f", "/old/f", "/gone"}) standIn.write(path, "12345");
  mount();
  const auto at = [&](const char* path) { return root / path; };
  const auto mkdir = [&](const char* path) { must(::mkdir(at(path).c_str(), 0755)); };
  const auto rmdir = [&](const char* path) { must(::rmdir(at(path).c_str())); };
  const auto move = [&](const char* from, const char* to, unsigned flags = 0) {
    moveFile(at(from), at(to), flags);
  };
  const auto attribute = [&](const char* path, const char* name) {
    std::array<char, 100> value{};
    must(::getxattr(at(path).c_str(), name, value.data(), value.size()));
  };
  const auto chmod = [&](mode_t mode) { must(::chmod(at("d/f").c_str(), mode)); };
  struct Case {
    const char* name;
    int expected;
    std::function<void()> run;
  };
  const std::string tooLong(256, 'n');
  constexpr off_t tooLarge = 10'000'000'000'000;
  const Case cases[] = {
      {"open what is not there", ENOENT, [&] { File(at("none"), O_RDONLY); }},
      {"below what is no folder", ENOTDIR, [&] { File(at("d/f/x"), O_RDONLY); }},
      {"create anew what is there", EEXIST, [&] { File(at("D/F"), anew); }},
      {"write to a folder", EISDIR, [&] { File(at("d"), O_WRONLY); }},
      {"mkdir", 0, [&] { mkdir("made"); }},
      {"unlink of a folder", EISDIR, [&] { unlink(at("full")); }},
      {"rmdir", 0, [&] { rmdir("made"); }},
      {"unlink", 0, [&] { unlink(at("gone")); }},
      {"a backslash", EINVAL, [&] { mkdir("a\\b"); }},
      {"no UTF-8", EINVAL, [&] { mkdir("\xFF"); }},
      {"256 bytes", ENAMETOOLONG, [&] { mkdir(tooLong.c_str()); }},
      {"hard link", EPERM, [&] { must(::link(at("d/f").c_str(), at("d/g").c_str())); }},
      {"symbolic link", EPERM, [&] { must(::symlink("f", at("d/g").c_str())); }},
      {"fifo", EPERM, [&] { must(::mkfifo(at("d/g").c_str(), 0600)); }},
      {"permissions, which are kept nowhere", 0, [&] { chmod(0444); }},
      {"setuid", EPERM, [&] { chmod(04755); }},
      {"setgid", EPERM, [&] { chmod(02755); }},
      {"sticky", EPERM, [&] { chmod(01755); }},
      {"another owner", EPERM, [&] { must(::chown(at("d/f").c_str(), 12345, 12345)); }},
      {"dates", 0, [&] { must(::utimensat(AT_FDCWD, at("d/f").c_str(), nullptr, 0)); }},
      {"its version", 0, [&] { attribute("d/f", "user.kzv.rev"); }},
      {"but no attribute is listed", 0,
       [&] { EXPECT_EQ(must(::listxattr(at("d/f").c_str(), nullptr, 0)), 0); }},
      {"another attribute", ENODATA, [&] { attribute("d/f", "user.other"); }},
      {"an attribute to keep", ENOTSUP,
       [&] { must(::setxattr(at("d/f").c_str(), "user.other", "x", 1, 0)); }},
      {"a folder into itself", EINVAL, [&] { move("d", "d/x"); }},
      {"a folder over a file", ENOTDIR, [&] { move("d", "full/x"); }},
      {"a file over a folder", EISDIR, [&] { move("full/x", "d"); }},
      {"over what is there, refused", EEXIST, [&] { move("d/f", "full/x", RENAME_NOREPLACE); }},
      {"an exchange", EINVAL, [&] { move("d/f", "full/x", RENAME_EXCHANGE); }},
      {"a folder over an empty one", 0,
       [&] {
         mkdir("empty");
         move("old", "empty");
       }},
      {"another letter case", 0, [&] { move("Case", "CASE"); }},
      {"over a file", 0,
       [&] {
         store(at("d/new"), "newer");
         move("d/new", "full/X");
       }},
      {"fsync sends", 0,
       [&] {
         const File file(at("synced"), O_CREAT | O_WRONLY);
         file.put("bytes");
         file.sync();
         EXPECT_EQ(standIn.content("/synced"), "bytes");
       }},
      {"append, write in the middle, lengthen", 0,
       [&] {
         store(at("synced"), "++", O_WRONLY | O_APPEND);
         const File file(at("SYNCED"), O_RDWR);
         must(::pwrite(file.number, "Y", 1, 1));
         must(::ftruncate(file.number, 9));
         std::array<char, 9> bytes{};
         EXPECT_EQ(::pread(file.number, bytes.data(), bytes.size(), 0), 9);
         EXPECT_EQ(std::string(bytes.data(), 9), std::string("bYtes++\0\0", 9));
       }},
      {"cut to 10 TB", ENOSPC, [&] { must(::truncate(at("synced").c_str(), tooLarge)); }},
      {"cut to 10 TB while it is open", ENOSPC,
       [&] { must(::ftruncate(File(at("synced"), O_RDWR).number, tooLarge)); }},
      {"written at 10 TB", ENOSPC,
       [&] { must(::pwrite(File(at("synced"), O_RDWR).number, "x", 1, tooLarge)); }},
      {"10 TB allocated", ENOSPC,
       [&] { must(::fallocate(File(at("synced"), O_RDWR).number, 0, 0, tooLarge)); }},
      {"room allocated beyond the end", 0,
       [&] {
         const File file(at("synced"), O_RDWR);
         must(::fallocate(file.number, FALLOC_FL_KEEP_SIZE, 0, 4096));
         must(::fallocate(file.number, 0, 0, 9));
         EXPECT_EQ(contentOf(at("synced")).size(), 9U);
       }},
      {"written through memory", 0,
       [&] {
         const File file(at("mapped"), O_CREAT | O_RDWR);
         must(::ftruncate(file.number, 5));
         void* memory = ::mmap(nullptr, 5, PROT_READ | PROT_WRITE, MAP_SHARED, file.number, 0);
         must(memory == MAP_FAILED ? -1 : 0);
         std::memcpy(memory, "shown", 5);
         must(::munmap(memory, 5));
       }},
      {"removed while it is open", 0,
       [&] {
         const File file(at("d/f"), O_RDONLY);
         unlink(at("d/f"));
         std::array<char, 5> bytes{};
         EXPECT_EQ(must(::read(file.number, bytes.data(), 5)), 5);
       }},
      {"space while the service does not tell it", EIO,
       [&] {
         standIn.fault({{"route", "users/get_space_usage"}, {"times", 0}, {"status", 400}});
         struct statvfs space {};
         must(::statvfs(root.c_str(), &space));
       }},
      {"names that stay here", 0,
       [&] {
         store(at(".~lock.x#"), "me");
         store(at("d/.f.swp"), "me");
         unlink(at("d/.f.swp"));
       }},
  };
  for (const Case& c : cases) EXPECT_EQ(errnoOf(c.run), c.expected) << c.name;
  EXPECT_EQ(contentOf(at(".~lock.x#")), "me");
  EXPECT_EQ(unmount(), 0);
  EXPECT_EQ(standIn.tree(), (Tree{{"/d/", 0},
                                  {"/full/", 0},
                                  {"/full/X", 5},
                                  {"/CASE/", 0},
                                  {"/CASE/f", 5},
                                  {"/empty/", 0},
                                  {"/empty/f", 5},
                                  {"/synced", 9},
                                  {"/mapped", 5}}));
  EXPECT_EQ(standIn.content("/full/x"), "newer");
  EXPECT_EQ(standIn.content("/mapped"), "shown");
}

TEST_F(MountTest, EditorsLeaveExactlyTheNewContent) {
  struct Editor {
    const char* name;
    std::function<void(const fs::path& folder, const fs::path& document, const std::string& text)> save;
    std::set<std::string> left;
  };
  const Editor editors[] = {
      {"in place",
       [](const fs::path&, const fs::path& document, const std::string& text) { store(document, text); },
       {"Report.txt"}},
      {"vim",
       [](const fs::path& folder, const fs::path& document, const std::string& text) {
         const File swap(folder / ".Report.txt.swp", anew);
         swap.put("swap");
         store(folder / "4913", "", anew);
         unlink(folder / "4913");
         moveFile(document, folder / "Report.txt~");
         storeSynced(document, text, anew);
         must(::chmod(document.c_str(), 0644));
         unlink(folder / "Report.txt~");
         unlink(folder / ".Report.txt.swp");
       },
       {"Report.txt"}},
      {"emacs",
       [](const fs::path& folder, const fs::path& document, const std::string& text) {
         EXPECT_EQ(::symlink("ada@host.1", (folder / ".#Report.txt").c_str()), -1);
         moveFile(document, folder / "Report.txt~");
         storeSynced(document, text, anew);
       },
       {"Report.txt", "Report.txt~"}},
      {"GNOME",
       [](const fs::path& folder, const fs::path& document, const std::string& text) {
         storeSynced(folder / ".goutputstream-AB12CD", text, anew);
         store(folder / "Report.txt~", "old");
         moveFile(folder / ".goutputstream-AB12CD", document);
       },
       {"Report.txt", "Report.txt~"}},
      {"KDE",
       [](const fs::path& folder, const fs::path& document, const std::string& text) {
         EXPECT_EQ(errnoOf([&] { File(folder, O_TMPFILE | O_WRONLY); }), EOPNOTSUPP) << "its second way";
         storeSynced(folder / "Report.txt.XyZ123", text, anew);
         moveFile(folder / "Report.txt.XyZ123", document);
       },
       {"Report.txt"}},
      {"LibreOffice",
       [](const fs::path& folder, const fs::path& document, const std::string& text) {
         store(folder / ".~lock.Report.txt#", "Ada", anew);
         store(folder / "lu1234.tmp", text, anew);
         store(folder / "Report.bak", "old", anew);
         storeSynced(document, text, O_WRONLY | O_TRUNC);
         unlink(folder / "Report.bak");
         unlink(folder / "lu1234.tmp");
         unlink(folder / ".~lock.Report.txt#");
       },
       {"Report.txt"}},
  };
  const auto folderOf = [](const Editor& editor) { return "/" + std::string(editor.name) + "/"; };
  for (const Editor& editor : editors) standIn.write(folderOf(editor) + "Report.txt", "old");
  mount();
  for (const Editor& editor : editors) {
    SCOPED_TRACE(editor.name);
    const fs::path folder = root / editor.name;
    for (const std::string text : {"the first edition", "the second, longer one"}) {
      EXPECT_EQ(errnoOf([&] { editor.save(folder, folder / "Report.txt", text); }), 0);
      EXPECT_EQ(contentOf(folder / "Report.txt"), text);
      EXPECT_EQ(standIn.content(folderOf(editor) + "Report.txt"), text);
    }
    std::set<std::string> seen;
    for (const auto& entry : fs::directory_iterator(folder)) seen.insert(entry.path().filename());
    EXPECT_EQ(seen, editor.left);
    std::set<std::string> kept;
    for (const auto& [path, size] : standIn.tree())
      if (path.starts_with(folderOf(editor))) kept.insert(path.substr(folderOf(editor).size()));
    kept.erase("");  // the folder itself
    EXPECT_EQ(kept, editor.left);
  }
}

TEST_F(MountTest, FilesThatStayHereLiveUntilTheyAreRemoved) {
  for (const char* path : {"/d/sub/a", "/gone/deep/a", "/left/a"}) standIn.write(path, "1");
  const auto isAsStored = [&](const std::vector<std::string>& paths) {
    for (const std::string& path : paths) EXPECT_EQ(contentOf(root / path), path.substr(path.rfind('/') + 1));
  };
  mount();
  for (const char* path :
       {"~x.tmp", ".top.txt.swp", "d/.~lock.a#", "d/sub/.a.swp", "gone/deep/~y.tmp", "left/~z.tmp"})
    store(root / path, fs::path(path).filename());
  for (const char* sent : {"._x", ".anim.swf", "x.tmp"}) store(root / sent, "1");
  const Tree tree = standIn.tree();
  EXPECT_EQ(tree, (Tree{{"/d/", 0},
                        {"/d/sub/", 0},
                        {"/d/sub/a", 1},
                        {"/gone/", 0},
                        {"/gone/deep/", 0},
                        {"/gone/deep/a", 1},
                        {"/left/", 0},
                        {"/left/a", 1},
                        {"/._x", 1},
                        {"/.anim.swf", 1},
                        {"/x.tmp", 1}}));
  EXPECT_EQ(end(SIGKILL), 128 + SIGKILL);
  standIn.remove("/gone");
  mount();
  // Before anybody has looked into them.
  moveFile(root / "d", root / "e");
  EXPECT_EQ(errnoOf([&] { must(::rmdir((root / "left").c_str())); }), ENOTEMPTY);
  unlink(root / "left/a");
  EXPECT_EQ(errnoOf([&] { must(::rmdir((root / "left").c_str())); }), ENOTEMPTY);
  isAsStored({"~x.tmp", ".top.txt.swp", "e/.~lock.a#", "e/sub/.a.swp", "gone/deep/~y.tmp", "left/~z.tmp"});
  moveFile(root / "gone", root / "GONE");
  moveFile(root / "e", root / "f");
  store(root / "~x.tmp", "cut", O_WRONLY | O_TRUNC);
  store(root / "~x.tmp", " and more", O_WRONLY | O_APPEND);
  standIn.write("/.top.txt.swp", "of another client");
  EXPECT_EQ(unmount(), 0);
  mount();
  isAsStored({".top.txt.swp", "f/.~lock.a#", "f/sub/.a.swp", "GONE/deep/~y.tmp"});
  EXPECT_EQ(contentOf(root / "~x.tmp"), "cut and more");
  for (const char* path : {"~x.tmp", ".top.txt.swp", "f/.~lock.a#", "left/~z.tmp"}) unlink(root / path);
  EXPECT_TRUE(soon([&] { return contentOf(root / ".top.txt.swp") == "of another client"; }));
  unlink(root / ".top.txt.swp");
  fs::remove_all(root / "f");
  fs::remove_all(root / "GONE");
  fs::remove_all(root / "left");
  EXPECT_EQ(unmount(), 0);
  mount();
  std::set<std::string> seen;
  for (const auto& entry : fs::directory_iterator(root)) seen.insert(entry.path().filename());
  EXPECT_EQ(seen, (std::set<std::string>{"._x", ".anim.swf", "x.tmp"}));
  EXPECT_EQ(standIn.tree(), (Tree{{"/._x", 1}, {"/.anim.swf", 1}, {"/x.tmp", 1}}));
  for (const auto& entry : fs::recursive_directory_iterator(home.path()))
    EXPECT_NE(entry.path().parent_path().filename(), "local") << entry.path() << " was forgotten";
}

TEST_F(MountTest, RenamesLeadToNamesThatStayHereAndBack) {
  struct Case {
    const char* name;
    const char* aside;
  };
  const Case cases[] = {{"Word", "~WRL0002.tmp"}, {"an owner file", "~$w.docx"}, {"a lock", ".~lock.w.docx#"},
                        {"Vim", ".w.docx.swp"},   {"Explorer", "Thumbs.db"},     {"Finder", ".DS_Store"}};
  for (const Case& c : cases) standIn.write("/" + std::string(c.name) + "/w.docx", "old");
  standIn.write("/kept", "old");
  mount();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const fs::path folder = root / c.name;
    const std::string remote = "/" + std::string(c.name) + "/";
    store(folder / "~WRD0001.tmp", "the new edition");
    EXPECT_EQ(errnoOf([&] { moveFile(folder / "w.docx", folder / c.aside); }), 0);
    EXPECT_EQ(standIn.tree().count(remote + "w.docx"), 0U);
    EXPECT_EQ(contentOf(folder / c.aside), "old");
    EXPECT_EQ(errnoOf([&] { moveFile(folder / "~WRD0001.tmp", folder / "w.docx"); }), 0);
    EXPECT_EQ(standIn.content(remote + "w.docx"), "the new edition");
    EXPECT_EQ(errnoOf([&] { moveFile(folder / c.aside, folder / "back"); }), 0);
    EXPECT_EQ(standIn.content(remote + "back"), "old");
    EXPECT_EQ(errnoOf([&] { moveFile(folder / "back", folder / c.aside); }), 0);
    EXPECT_EQ(errnoOf([&] { moveFile(folder, folder / c.aside); }), EINVAL) << "a folder into itself";
  }
  {  // written and not sent yet
    const File file(root / "kept", O_WRONLY | O_TRUNC);
    file.put("newest");
    EXPECT_EQ(errnoOf([&] { moveFile(root / "kept", root / "~kept.tmp"); }), 0);
    file.put(" words");
  }
  EXPECT_EQ(end(SIGKILL), 128 + SIGKILL);
  mount();
  for (const Case& c : cases) {
    EXPECT_EQ(contentOf(root / c.name / c.aside), "old") << c.name;
    EXPECT_EQ(contentOf(root / c.name / "w.docx"), "the new edition") << c.name;
  }
  EXPECT_EQ(contentOf(root / "~kept.tmp"), "newest words");
  EXPECT_FALSE(fs::exists(root / "kept"));
  EXPECT_EQ(waiting(), 0U);
}

TEST_F(MountTest, FoldersAreCopiedWholeThroughFailures) {
  for (int number = 0; number < 150; ++number) {
    const fs::path folder = fs::path(files.path()) / "in" / ("folder " + std::to_string(number % 7));
    fs::create_directories(folder);
    std::ofstream(folder / ("file " + std::to_string(number)))
        << std::string(static_cast<std::size_t>(number) * 37, 'x');
  }
  mount();
  standIn.fault({{"route", "*"}, {"every", 20}, {"times", 0}, {"status", 500}});
  standIn.fault({{"route", "*"}, {"every", 50}, {"times", 0}, {"cut_response_after", 10}});
  const bool hasRsync = sh("command -v rsync").exitStatus == 0;
  struct Step {
    const char* line;
    bool needsRsync;
  };
  const Step steps[] = {
      {"cp -r \"$FILES/in\" . && diff -r \"$FILES/in\" in", false},
      {"cp -r in \"$FILES/out\" && diff -r \"$FILES/in\" \"$FILES/out\"", false},
      {"rsync -a --checksum \"$FILES/in/\" again && diff -r \"$FILES/in\" again", true},
      {"rsync -a --checksum again/ \"$FILES/back\" && diff -r \"$FILES/in\" \"$FILES/back\"", true}};
  for (const Step& step : steps) {
    if (step.needsRsync && !hasRsync) continue;
    const auto outcome = sh(step.line);
    EXPECT_EQ(outcome.exitStatus, 0) << step.line << "\n" << outcome.output << outcome.errors;
  }
  EXPECT_GT(standIn.faultHits(), 15) << "the failures did not take place";
  standIn.clearFaults();
  EXPECT_EQ(waiting(), 0U);
  EXPECT_EQ(unmount(), 0);
  mount();
  EXPECT_EQ(sh("diff -r \"$FILES/in\" in").exitStatus, 0) << "the service has something else";
  if (!hasRsync) GTEST_SKIP() << "the part with rsync: it is not installed";
}

TEST_F(MountTest, CopiesThatKeepModesAndAttributesEndWell) {
  mount();
  const bool hasRsync = sh("command -v rsync").exitStatus == 0;
  ASSERT_EQ(
      sh("mkdir \"$FILES/in\" \"$FILES/in/sub\" && cd \"$FILES/in\" && echo one > a && echo two > sub/b && "
         "chmod 0444 a && chmod 0600 sub/b && chmod 0555 sub && cd .. && tar cf in.tar in")
          .exitStatus,
      0);
  const char* lines[] = {
      "cp -a \"$FILES/in\" .",
      "cp -a in again && diff -r in again",
      "cp -a in \"$FILES/out\" && diff -r in \"$FILES/out\"",
      "mkdir tar && tar xf \"$FILES/in.tar\" -C tar && diff -r in tar/in",
      "rsync -aX \"$FILES/in/\" synced && rsync -aX synced/ \"$FILES/back\" && diff -r in \"$FILES/back\"",
      "rsync -aAX --ignore-times \"$FILES/in/\" synced && rsync -aAX synced/ again && diff -r in again",
      "install -m 0500 in/a installed && cmp in/a installed"};
  for (const std::string line : lines) {
    if (line.starts_with("rsync") && !hasRsync) continue;
    const auto outcome = sh(line);
    EXPECT_EQ(outcome.exitStatus, 0) << line << "\n" << outcome.output << outcome.errors;
    EXPECT_EQ(outcome.errors, "") << line;
  }
  if (!hasRsync) GTEST_SKIP() << "the part with rsync: it is not installed";
}

TEST_F(MountTest, WhatWaitsToBeSentIsTold) {
  const auto utcNow = [] {
    const std::time_t now = std::time(nullptr);
    std::array<char, 32> text{};
    return std::string(text.data(), std::strftime(text.data(), text.size(), "%FT%TZ", std::gmtime(&now)));
  };
  const auto status = [&] {
    const auto outcome = kzv({"--json", "mount", "--status"});
    EXPECT_EQ(outcome.exitStatus, 0) << outcome.errors;
    return outcome.output.empty() ? json::value() : json::parse(outcome.output);
  };
  mount();
  EXPECT_EQ(status().at("waiting").as_array().size(), 0U);
  standIn.fault({{"route", "files/upload"}, {"times", 0}, {"status", 400}, {"body", "the line is down"}});
  const std::string before = utcNow();
  for (const char* name : {"first", "second", "~stays.tmp"}) errnoOf([&] { store(root / name, "kept"); });
  for (const bool isMounted : {true, false}) {
    SCOPED_TRACE(isMounted);
    if (!isMounted) {
      const auto outcome = kzv({"umount", root.string()});
      EXPECT_EQ(outcome.exitStatus, 0);
      EXPECT_NE(outcome.errors.find("2 files could not be uploaded yet; they are kept in " + home.path()),
                std::string::npos)
          << outcome.errors;
      std::exchange(process_, nullptr)->finish(20s);
    }
    const json::value told = status();
    EXPECT_EQ(told.at("folder").as_string(), root.string());
    EXPECT_EQ(told.at("mounted").as_bool(), isMounted);
    EXPECT_EQ(told.at("account").as_string(),
              json::parse(kzv({"--json", "accounts"}).output).at("id").as_string());
    ASSERT_EQ(told.at("waiting").as_array().size(), 2U);
    const json::value& waiting = told.at("waiting").at(0);
    EXPECT_EQ(waiting.at("path").as_string(), "/first");
    EXPECT_EQ(waiting.at("size").to_number<int>(), 4);
    EXPECT_NE(waiting.at("reason").as_string().find("400"), std::string::npos) << waiting;
    const std::string since(waiting.at("since").as_string());
    EXPECT_GE(since, before);
    EXPECT_LE(since, utcNow());
    EXPECT_EQ(contentOf(std::string(waiting.at("file").as_string())), "kept");
  }
  const fs::path data(std::string(status().at("waiting").at(0).at("file").as_string()));
  std::vector<fs::path> damaged{fs::path(data).replace_extension(".json")};
  for (const auto& entry : fs::directory_iterator(data.parent_path().parent_path() / "local"))
    if (entry.path().extension() == ".json") damaged.push_back(entry.path());
  ASSERT_EQ(damaged.size(), 2U);
  std::ofstream(damaged[0]) << "{";
  std::ofstream(damaged[1]) << R"({"path":"/d/../../x"})";
  const std::string words =
      "2 files of this account can be neither uploaded nor shown: their journal entries are damaged";
  const auto started = kzv({"mount", root.string()});
  EXPECT_NE(started.errors.find(words), std::string::npos) << started.errors;
  const std::string listed = kzv({"mount", "--status"}).output;
  for (fs::path& file : damaged) {
    const std::string bytes = file.replace_extension(".data");
    EXPECT_NE(listed.find("its journal entry is damaged; its bytes are in " + bytes), std::string::npos)
        << listed;
    EXPECT_EQ(contentOf(bytes), "kept");
  }
  EXPECT_NE(kzv({"umount", root.string()}).errors.find(words), std::string::npos);
  EXPECT_EQ(contentOf(damaged[1]), "kept");
  const auto unlinked = kzv({"unlink", "Ada"});
  EXPECT_NE(unlinked.errors.find("3 files of this account were never uploaded"), std::string::npos)
      << unlinked.errors;
}

TEST_F(MountTest, OnlyWritingTheLinkAttributePublishesAFile) {
  standIn.write("/d/f", "12345");
  ASSERT_EQ(kzv({"desktop", "--set", "Ada"}).exitStatus, 0);
  mount();
  constexpr const char* name = "user.kzv.link";
  const fs::path file = root / "d/f";
  const auto link = [&](const fs::path& path) {
    std::array<char, 300> value{};
    const ssize_t length = must(::getxattr(path.c_str(), name, value.data(), value.size()));
    return std::string(value.data(), static_cast<std::size_t>(length));
  };
  const auto make = [&](const fs::path& path) { must(::setxattr(path.c_str(), name, "", 0, 0)); };
  EXPECT_EQ(errnoOf([&] { link(file); }), ENODATA);
  const TemporaryFolder readOnly;
  if (::mount(root.c_str(), readOnly.path().c_str(), nullptr, MS_BIND, nullptr) == 0) {
    must(::mount(nullptr, readOnly.path().c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr));
    const fs::path same = fs::path(readOnly.path()) / "d/f";
    EXPECT_EQ(errnoOf([&] { make(same); }), EROFS);
    EXPECT_EQ(errnoOf([&] { link(same); }), ENODATA);
    ::umount2(readOnly.path().c_str(), MNT_DETACH);
  }
  EXPECT_EQ(standIn.requests().count("sharing/create_shared_link_with_settings"), 0U);
  EXPECT_EQ(errnoOf([&] { make(file); }), 0);
  EXPECT_EQ(link(file) + "\n", kzv({"share", "/d/f"}).output);
  EXPECT_EQ(errnoOf([&] { make(root / "none"); }), ENOENT);
}

TEST_F(MountTest, TestProgramsOfOthersAreSatisfied) {
  mount();
  struct Program {
    const char* name;
    std::string line;
  };
  const Program programs[] = {{"fio",
                               "fio --name=check --directory=. --rw=randrw --size=4m --bs=4k --nrfiles=4 "
                               "--verify=sha256 --do_verify=1 "
                               "--verify_fatal=1 --end_fsync=1 --minimal --randseed=7"},
                              {"dbench", "mkdir dbench && dbench -D dbench -t 3 -c \"$FILES/load\" 4"}};
  // One client's part in dbench's own language: a document is saved, read, renamed and thrown away.
  std::ofstream(files.path() + "/load") << R"(Deltree "\clients\client1" NT_STATUS_OK
Mkdir "\clients" NT_STATUS_OK
NTCreateX "\clients\client1" 0x1 0x2 1 NT_STATUS_OK
Close 1 NT_STATUS_OK
NTCreateX "\clients\client1\a.doc" 0x40 0x2 2 NT_STATUS_OK
WriteX 2 0 20000 20000 NT_STATUS_OK
Flush 2 NT_STATUS_OK
ReadX 2 0 20000 20000 NT_STATUS_OK
Close 2 NT_STATUS_OK
Rename "\clients\client1\a.doc" "\clients\client1\b.doc" NT_STATUS_OK
QUERY_PATH_INFORMATION "\clients\client1\b.doc" 1004 NT_STATUS_OK
FIND_FIRST "\clients\client1\*" 260 1366 1 NT_STATUS_OK
Unlink "\clients\client1\b.doc" 0x6 NT_STATUS_OK
)";
  std::string missing;
  for (const Program& program : programs) {
    if (sh(std::string("command -v ") + program.name).exitStatus != 0) {
      missing += std::string(" ") + program.name;
      continue;
    }
    const auto outcome = sh(program.line);
    EXPECT_EQ(outcome.exitStatus, 0) << program.name << ": " << outcome.output << outcome.errors;
  }
  if (!missing.empty()) GTEST_SKIP() << "not installed:" << missing;
}

TEST_F(MountTest, AKillAmidUploadsLosesNoClosedFile) {
  constexpr int fileCount = 100;
  mount();
  standIn.fault({{"route", "files/upload"}, {"times", 0}, {"delay_ms", 1500}});
  std::vector<std::thread> writers;
  for (int number = 0; number < fileCount; ++number) {
    writers.emplace_back([&, number] {
      const std::string name = "file " + std::to_string(number);
      errnoOf([&] { store(root / name, name); });  // the mount dies under it
    });
  }
  const auto arrived = [&] { return standIn.tree().size(); };
  // A file may have arrived while its entry is still there.
  const auto isKnown = [&](const Tree& tree, const std::vector<std::string>& paths, int number) {
    const std::string path = "/file " + std::to_string(number);
    return tree.contains(path) || std::find(paths.begin(), paths.end(), path) != paths.end();
  };
  EXPECT_TRUE(soon([&] {
    const auto paths = waitingPaths();  // first: what leaves the journal afterwards is in the tree
    const Tree tree = standIn.tree();
    for (int number = 0; number < fileCount; ++number)
      if (!isKnown(tree, paths, number)) return false;
    return true;
  }));
  EXPECT_LT(arrived(), static_cast<std::size_t>(fileCount)) << "there was no middle";
  end(SIGKILL);
  for (auto& writer : writers) writer.join();
  standIn.clearFaults();
  mount();  // over the mount that died
  EXPECT_TRUE(soon([&] { return waiting() == 0; }));
  Tree expected;
  for (int number = 0; number < fileCount; ++number) {
    const std::string name = "file " + std::to_string(number);
    expected["/" + name] = static_cast<std::int64_t>(name.size());
  }
  EXPECT_EQ(standIn.tree(), expected);
}

TEST_F(MountTest, WhatCouldNotBeSentIsSentByTheNextMount) {
  struct Case {
    const char* name;
    json::object failure;
    int reason;
    std::function<int()> leave;
    int status;
  };
  const json::object full{
      {"status", 409},
      {"body",
       R"({"error_summary":"path/insufficient_space/","error":{".tag":"path","reason":{".tag":"insufficient_space"},"upload_session_id":"s"}})"}};
  const json::object lost{
      {"status", 409},
      {"body",
       R"({"error_summary":"lookup_failed/not_found/","error":{".tag":"lookup_failed","lookup_failed":{".tag":"not_found"}}})"}};
  const Case cases[] = {{"a lost upload session", lost, EIO, [&] { return unmount(); }, 0},
                        {"umount", full, ENOSPC, [&] { return unmount(); }, 0},
                        {"SIGTERM", {{"cut_request_after", 0}}, EIO, [&] { return end(SIGTERM); }, 130},
                        {"SIGKILL", full, ENOSPC, [&] { return end(SIGKILL); }, 128 + SIGKILL}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    mount();
    json::object failure = c.failure;
    failure.insert({{"route", "files/upload"}, {"times", 0}});
    standIn.fault(failure);
    EXPECT_EQ(errnoOf([&] { store(root / c.name, "kept"); }), c.reason) << "close(2) must tell";
    EXPECT_EQ(contentOf(root / c.name), "kept");
    EXPECT_EQ(c.leave(), c.status);
    standIn.clearFaults();
    mount();
    EXPECT_EQ(contentOf(root / c.name), "kept");
    EXPECT_TRUE(soon([&] { return waiting() == 0; }));
    EXPECT_EQ(standIn.content("/" + std::string(c.name)), "kept");
    EXPECT_EQ(unmount(), 0);
  }
}

TEST_F(MountTest, ChangesOfAnotherDeviceAreSeenAndNeverOverwritten) {
  for (const char* path : {"/d/a", "/d/b", "/d/c"}) standIn.write(path, "first");
  mount();
  EXPECT_EQ(contentOf(root / "d/a"), "first");
  EXPECT_EQ(contentOf(root / "d/b"), "first");
  standIn.write("/d/a", "second, longer");
  standIn.remove("/d/c");
  standIn.write("/d/new", "new");
  EXPECT_TRUE(soon([&] { return contentOf(root / "d/a") == "second, longer"; }));
  EXPECT_TRUE(soon([&] {
    std::error_code notThereYet;
    return !fs::exists(root / "d/c") && fs::file_size(root / "d/new", notThereYet) == 3;
  }));

  File file(root / "d/b", O_WRONLY | O_TRUNC);
  file.put("mine");
  standIn.write("/d/b", "theirs");
  file.sync();
  file.put(" and more");
  file.close();
  EXPECT_EQ(standIn.content("/d/b"), "theirs");
  std::vector<std::string> copies;
  for (const auto& [path, size] : standIn.tree())
    if (path.starts_with("/d/b (")) copies.push_back(path);
  ASSERT_EQ(copies.size(), 1U);
  EXPECT_EQ(standIn.content(copies.front()), "mine and more");
  EXPECT_TRUE(soon([&] { return contentOf(root / "d/b") == "theirs"; }));
  EXPECT_TRUE(soon([&] { return contentOf(root / copies.front().substr(1)) == "mine and more"; }));
}

TEST_F(MountTest, AKilledRenameLosesNeitherFile) {
  standIn.write("/from", "the new one");
  standIn.write("/to", "the old one");
  mount();
  ASSERT_EQ(fs::file_size(root / "to"), 11U);
  // Whatever comes behind the move that sets the target aside is held up.
  standIn.fault({{"route", "files/move_v2"}, {"after", 1}, {"times", 0}, {"delay_ms", 60'000}});
  std::thread mover([&] { ::rename((root / "from").c_str(), (root / "to").c_str()); });
  EXPECT_TRUE(soon([&] { return standIn.faultHits() >= 1; }));  // the second move has arrived, and waits
  EXPECT_EQ(standIn.tree().count("/to"), 0U);
  end(SIGKILL);
  mover.join();
  standIn.clearFaults();
  mount();
  EXPECT_TRUE(soon([&] { return standIn.tree().count("/to") == 1; }));
  EXPECT_EQ(standIn.tree(), (Tree{{"/from", 11}, {"/to", 11}}));
  EXPECT_EQ(standIn.content("/to"), "the old one");
  EXPECT_EQ(contentOf(root / "to"), "the old one");
}

TEST_F(MountTest, StandsInTheBackgroundAndSaysInWordsWhatIsWrong) {
  standIn.write("/d/f", "12345");
  const auto started = kzv({"mount", root.string()});
  ASSERT_EQ(started.exitStatus, 0) << started.errors;
  EXPECT_EQ(fs::file_size(root / "d/f"), 5U) << "it was not ready";
  TemporaryFolder other;
  struct Case {
    std::vector<std::string> arguments;
    const char* words;
  };
  const Case cases[] = {{{"mount", root.string()}, "mounted"},
                        {{"mount", other.path()}, "already mounted at"},
                        {{"mount", root.string() + "/none"}, "o such"},
                        {{"umount", other.path()}, "mounted"}};
  for (const Case& c : cases) {
    const auto outcome = kzv(c.arguments);
    EXPECT_EQ(outcome.exitStatus, 1) << c.words;
    EXPECT_NE(outcome.errors.find(c.words), std::string::npos) << outcome.errors;
  }
  {
    const File inUse(root / "d/f", O_RDONLY);
    const auto outcome = kzv({"umount", root.string()});
    EXPECT_EQ(outcome.exitStatus, 1);
    EXPECT_NE(outcome.errors.find("use"), std::string::npos) << outcome.errors;
  }
  EXPECT_EQ(kzv({"umount", root.string()}).exitStatus, 0);
  EXPECT_TRUE(fs::is_empty(root));
}

TEST_F(MountTest, AFullDiskIsToldToTheProgramThatWrites) {
  // In a mount namespace of its own, so that no small disk outlives a test that is killed.
  const auto outcome = ChildProcess::run(
      {"/usr/bin/unshare", "-m", "/bin/sh", "-c",
       "mkdir -p \"$KZV_HOME/state\" && mount -t tmpfs -o size=2m kzv-test \"$KZV_HOME/state\" || exit 77\n"
       "cd / && \"$0\" mount \"$ROOT\" || exit 1\n"
       "head -c 5000000 /dev/zero > \"$ROOT/big\" && exit 2\n"
       "rm \"$ROOT/big\" || exit 3\n"
       "echo small > \"$ROOT/small\" || exit 4\n"
       "\"$0\" umount \"$ROOT\" || exit 5\n",
       KZV_PROGRAM},
      [&] {
        auto all = environment();
        all["ROOT"] = root.string();
        return all;
      }());
  if (outcome.exitStatus == 77) GTEST_SKIP() << "a small disk cannot be mounted here: " << outcome.errors;
  EXPECT_EQ(outcome.exitStatus, 0) << outcome.errors;
  EXPECT_NE(outcome.errors.find("No space left on device"), std::string::npos) << outcome.errors;
  EXPECT_EQ(standIn.tree(), (Tree{{"/small", 6}}));
}

TEST_F(MountTest, CostsNoMoreRequestsThanTheServiceNeeds) {
  standIn.makeTree("/large", 0, 5000);
  standIn.write("/d/small", "12345");
  mount();
  const auto list = [&] { return std::distance(fs::directory_iterator(root / "large"), {}); };
  struct Case {
    const char* name;
    std::function<bool()> run;
    int most;
  };
  const Case cases[] = {
      {"the root and a folder", [&] { return fs::exists(root / "d/small"); }, 6},
      {"5,000 entries", [&] { return list() == 5000; }, 5},
      {"the same again", [&] { return list() == 5000 && fs::file_size(root / "large/File 00001.txt") > 0; },
       0},
      {"read", [&] { return contentOf(root / "d/small") == "12345"; }, 1},
      {"write", [&] { return errnoOf([&] { store(root / "d/new", "new"); }) == 0; }, 1},
      {"mkdir", [&] { return fs::create_directory(root / "d/sub"); }, 2},
      {"rename", [&] { return ::rename((root / "d/new").c_str(), (root / "d/newer").c_str()) == 0; }, 1},
      {"delete", [&] { return fs::remove(root / "d/newer"); }, 1},
      {"space",
       [&] {
         struct statvfs space {};
         return ::statvfs(root.c_str(), &space) == 0 && space.f_bavail > 0;
       },
       2},
      {"a name that is not there", [&] { return !fs::exists(root / "d/none"); }, 0},
  };
  // What is listed before the change feed has a cursor is listed again: a change that shows says that this is
  // over.
  EXPECT_TRUE(fs::exists(root / "d/small"));
  standIn.write("/d/marker", "1");
  EXPECT_TRUE(soon([&] { return fs::exists(root / "d/marker"); }));
  for (const Case& c : cases) {
    standIn.forgetRequests();
    EXPECT_TRUE(c.run()) << c.name;
    int count = 0;
    std::string routes;
    for (const auto& [route, times] : standIn.requests()) {
      if (route == "files/list_folder/continue" && c.most < 5) continue;  // the poll's
      count += times;
      routes += route + " x" + std::to_string(times) + "; ";
    }
    EXPECT_LE(count, c.most) << c.name << ": " << routes;
  }
}
