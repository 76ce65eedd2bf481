/**
 * @file
 * Version of libQXV_RTP.so and libZAQSockets.so at compile time, from which the build takes it.
 *
 * A new major or minor number may bring functions, a new patch number brings none. What a host that
 * was compiled against another version may expect is in docs/packaging.md.
 */
#ifndef QXV_RTP_VERSION_H
#define QXV_RTP_VERSION_H

/** Major number; while it is 0, an incompatible change raises the minor number. */
#define QXV_RTP_VERSION_MAJOR 0
/** Minor number. */
#define QXV_RTP_VERSION_MINOR 1
/** Patch number. */
#define QXV_RTP_VERSION_PATCH 0

/** A version as one number, to compare with in \#if. */
#define QXV_RTP_VERSION_NUMBER(major, minor, patch) ((major)*1000000 + (minor)*1000 + (patch))
/** This version as one number. */
#define QXV_RTP_VERSION \
    QXV_RTP_VERSION_NUMBER(QXV_RTP_VERSION_MAJOR, QXV_RTP_VERSION_MINOR, QXV_RTP_VERSION_PATCH)

#endif
