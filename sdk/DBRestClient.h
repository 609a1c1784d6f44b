#pragma once
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "foundation/LocalAccess.h"
#include "foundation/NSObject.h"
#include "sdk/DBRestClientDelegate.h"
#include "sdk/DBSession.h"

/// What the caller knows of an item that it loads, which saves requests. What turns out wrong costs one
/// round trip more.
struct DBKnownItem {
  /// The path of the folder that the item lies in, where the service's letter case of it is known. Else, and
  /// where the service shows another one than was asked for, the folders above are asked for their names,
  /// since the service promises no more than the case of an item's own name.
  std::optional<std::string> folderPath{};
  /// The item's record, where it is a folder that its parent's listing contains: only its children are asked
  /// for.
  DBRestClientDelegate::MetadataRef folder{};
  /// There is no folder of this name: its children are not asked for.
  bool isNoFolder = false;
};

/// Asynchronous requests to the service's HTTP API (version 2) for one account. Every operation returns at
/// once; its outcome reaches the delegate on the run loop of the thread that called the operation, which must
/// be running.
///
/// All clients share one network thread, one connection pool, one DNS cache and one TLS session cache, so
/// that a fresh client costs no handshake. A call never hangs for ever: connecting takes at most 30 s, and 60
/// s without a byte are an error. An expired token is renewed and the request repeated, unseen. Requests that
/// can be repeated safely wait as requested after 429 and 503 (5 tries, 5 minutes in all), and up to 5
/// minutes while the service refuses a change because another one of the account is in progress; meanwhile
/// fewer uploads of the account run concurrently.
///
/// Threads: one thread at a time; operations and cancelAllRequests on the thread whose run loop delivers the
/// callbacks. A client in a shared_ptr lives at least until a callback that is running has returned; any
/// other must be destroyed on the thread of its callbacks, outside of them.
class DBRestClient final : public NSObject, public std::enable_shared_from_this<DBRestClient> {
 public:
  /// @param userId  the account; nothing for a sign-in that has none yet.
  DBRestClient(std::shared_ptr<DBSession> session, std::optional<std::string> userId);
  /// Cancels what is under way. Any thread.
  ~DBRestClient() override;

  /// The delegate is not retained and must outlive the client's requests; null for none. Any thread.
  void setDelegate(DBRestClientDelegate* delegate);

  /// The record of `path` ("/" is the root); of a folder with its contents, of a deleted item flagged so. A
  /// path that never existed is an error with code 404. Records come with the service's own letter case.
  /// A folder's record and the first page of its children are asked for together, unless `known` says more.
  void loadMetadata(const std::string& path, const DBKnownItem& known = {});
  /// A folder and every folder below it with their contents, in one stream of pages: a DBTree. The listings
  /// are those that loadMetadata would bring.
  /// @param folder      the folder's record, whose path has the service's letter case; null: the root.
  /// @param maxEntries  a tree with more is an error, DBErrorTreeTooLarge.
  void loadTree(const DBRestClientDelegate::MetadataRef& folder, std::size_t maxEntries);
  /// One page of changes since `cursor`. Without a cursor: only the newest cursor, no entries, `reset` true.
  /// Never repeated automatically: the caller decides when to poll again.
  void loadDelta(const std::optional<std::string>& cursor);
  /// Waits at the service until something changes after `cursor` (list_folder/longpoll). Ends with
  /// waitedForChanges, also when nothing has changed for `limit` (30 to 480 s) and the up to 90 s that the
  /// service adds, or with waitForChangesFailedWithError; a lost cursor counts as a change. Silence is no
  /// error here before `limit` and 100 s more have passed. Never repeated by itself.
  void waitForChanges(const std::string& cursor, std::chrono::seconds limit);
  void loadAccountInfo(DBAccountParts parts = DBAccountParts::all);
  /// Links the account that `token` belongs to: a bare access token, or the service's token answer as a JSON
  /// object (access_token, refresh_token, expires_in). Ends with restClientLoadedAccessToken or
  /// loadAccessTokenFailedWithError.
  void adoptAccessToken(const std::string& token);
  // Signing in, in the browser. One sign-in at a time per client: a new one replaces the one before it.

  /// How the code comes back from the service's page.
  enum class SignInCode {
    byRedirect,  // the browser is sent to an address of this machine (or as below, where that is not free)
    typedIn      // the page shows it, and useAuthorizationCode takes it
  };
  /// Begins a sign-in; no request is made. Ends with restClientLoadedRequestToken or
  /// loadRequestTokenFailedWithError.
  void loadRequestToken(SignInCode code = SignInCode::byRedirect);
  /// Whether a sign-in is under way. Any thread.
  bool requestTokenLoaded() const;
  /// Gives up every sign-in of this client: once this has returned, the client links no account any more, and
  /// tokens that have already come are revoked. Any thread.
  void withdrawSignIn();
  /// The page that the user has to visit; empty without a sign-in. Any thread.
  std::string authorizeURL() const;
  /// A code that the user has copied from the page. False when the text cannot be one or no sign-in is under
  /// way. Any thread.
  bool useAuthorizationCode(const std::string& code);
  /// Trades the code for tokens and links the account. Ends with restClientLoadedAccessToken or
  /// loadAccessTokenFailedWithError: at once and without a request with DBErrorAuthorizationPending while the
  /// user has not answered; with 403 when the user declined; with DBErrorSignInExpired once 10 minutes have
  /// passed. What cannot succeed any more ends the sign-in.
  void loadAccessToken();

  // Transfers: bodies are streamed from and to disk by the network thread, so memory stays flat. What comes
  // is written beside the target, compared with the size and the content hash that the service announces,
  // synced and renamed: a file is there whole or not at all. A damaged one is fetched again, some times.

  /// @param path    of the newest version; or "rev:REV", which names one version wherever it is now.
  /// @param access  the local file's; its date is the version's.
  void loadFile(const std::string& path, const std::string& intoPath,
                LocalAccess access = LocalAccess::byUmask);
  /// The picture's file is its owner's only.
  /// @param size  one of the names "xs", "s", "m", "l", "xl".
  void loadThumbnail(const std::string& path, const std::string& size, const std::string& intoPath);
  /// Below 150 MiB. With a revision: replaces it if it is still the newest, else is stored beside it;
  /// without: never replaces. A body that was damaged on its way is sent again. When the file changes before
  /// its last byte is read, nothing is stored: DBErrorFileChanged.
  void uploadFile(const std::string& filename, const std::string& toPath,
                  const std::optional<std::string>& withParentRev, const std::string& fromPath);
  /// The next chunk of an upload session; without an upload id the first. Not repeated after a failure, whose
  /// error tells from where the upload can continue (DBErrorUploadIdKey, DBErrorOffsetKey), if it can.
  void uploadFileChunk(const std::optional<std::string>& uploadId, std::uint64_t offset,
                       const std::string& fromPath);
  /// Stores what an upload session has received, with the modification date of the file that its chunks came
  /// from. Repeated after a failure as long as the session may still be there.
  void uploadFileFromUploadId(const std::string& filename, const std::string& toPath,
                              const std::optional<std::string>& withParentRev,
                              const std::string& fromUploadId);
  /// How much uploadFileChunk sends at most.
  static std::uint64_t uploadChunkSizeBytes();

  void createFolder(const std::string& path);
  void deletePath(const std::string& path);
  /// `toPath` is the full new path.
  void moveFrom(const std::string& path, const std::string& toPath);
  void loadSharableLinkForFile(const std::string& path, bool shortUrl);
  /// Looks for an existing link and makes none: requestSucceeded with its URL, or with an empty text.
  void findSharableLinkForFile(const std::string& path);

  /// Ends every request under way; none of their callbacks arrives after this has returned. REQUIRES the
  /// thread of the callbacks.
  void cancelAllRequests();

  class Impl;  // the client layer's own

 private:
  const std::shared_ptr<Impl> impl_;
};
