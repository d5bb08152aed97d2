#pragma once

#include "hlvp.h"

#include <QtGlobal>

// Size limits of HLVP frames and message fields. Anything over them is refused when read.
namespace tellwyn::wire {

// Largest frame body before and after sign-in. A larger announced length ends the connection.
inline constexpr qsizetype maxUnauthenticatedFrameBytes = 64 * 1024;
inline constexpr qsizetype maxFrameBytes = HLVP::maxClipboardBytes + 64 * 1024;

// Field limits, in UTF-8 bytes or entries.
inline constexpr qsizetype maxNameBytes =
    256; // clientName, agentName, method, kind, error code, volume names
inline constexpr qsizetype maxTextBytes = 4096; // every other text unless listed here
inline constexpr qsizetype maxCredentialEntries = 16;
inline constexpr qsizetype maxCredentialKeyBytes = 64;
inline constexpr qsizetype maxCredentialValueBytes = 1024;
inline constexpr qsizetype maxMapEntries = 64; // keys of one message
inline constexpr qsizetype maxDiskVolumes = 256;
inline constexpr qsizetype maxTransferIDBytes = 64;
inline constexpr qsizetype maxFileNameBytes = 1024; // as offered; the saved name is shortened further
inline constexpr qsizetype maxFileChunkBytes = 256 * 1024;
inline constexpr qsizetype sha256Bytes = 32;

} // namespace tellwyn::wire
