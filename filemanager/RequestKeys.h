#pragma once
#include "foundation/NSString.h"

/// The keys under which a request's state is attached to its client. Used by identity: each function returns
/// one constant object, whose text is its name for logs.

inline const NSString& KZVDFMLockKey() {  // NSCondition that the caller waits on
  static const auto& key = *new NSString("KZVDFMLockKey");
  return key;
}
inline const NSString& KZVDFMRezultKey() {  // the request's result, or nothing
  static const auto& key = *new NSString("KZVDFMRezultKey");
  return key;
}
inline const NSString& KZVDFMErrorKey() {  // the request's NSError, or nothing
  static const auto& key = *new NSString("KZVDFMErrorKey");
  return key;
}
inline const NSString& KZVDFMProgressKey() {  // the caller's progress callback, boxed
  static const auto& key = *new NSString("KZVDFMProgressKey");
  return key;
}
inline const NSString& KZVDFMErrorCountKey() {  // NSNumber: failed chunks so far; absent counts as 0
  static const auto& key = *new NSString("KZVDFMErrorCountKey");
  return key;
}
inline const NSString& KZVDFMDownloadKey() {  // what a download tells beside its result
  static const auto& key = *new NSString("KZVDFMDownloadKey");
  return key;
}
inline const NSString& KZVDFMUploadLocalPathKey() {  // text: the file that a chunked upload sends
  static const auto& key = *new NSString("KZVDFMUploadLocalPathKey");
  return key;
}
inline const NSString& KZVDFMUploadRemotePathKey() {  // text: where a chunked upload goes
  static const auto& key = *new NSString("KZVDFMUploadRemotePathKey");
  return key;
}
inline const NSString& KZVDFMUploadParentRevKey() {  // text: the revision to replace, or nothing
  static const auto& key = *new NSString("KZVDFMUploadParentRevKey");
  return key;
}
inline const NSString& KZVDFMUploadLocalVersionKey() {  // text: fileVersion of what a chunked upload sends
  static const auto& key = *new NSString("KZVDFMUploadLocalVersionKey");
  return key;
}
inline const NSString& KZVDFMUploadWaitKey() {  // NSNumber: milliseconds waited since the last chunk arrived,
                                                // because the service asked for it
  static const auto& key = *new NSString("KZVDFMUploadWaitKey");
  return key;
}
