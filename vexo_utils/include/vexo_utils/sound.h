// WAV files of uncompressed 16-bit samples (PCM), and the volume of such samples.
//
// Samples are signed and little-endian, the channels' in turn.
//
// Threads:   any; one at a time for a file or a buffer.
// Limits:    sizes in the header have 32 bits: a file must stay below 4 GiB.
// Failure:   false, logged at error level. The files that the readers open are closed again.
#pragma once

#include <string>
#include <vector>

#include <stdint.h>

#include <vexo_utils/export.h>

namespace vexo::utils {
class File;
}

// To write a file: open it (not for append), writeWavHeader, write the samples, finalizeWavHeader.

// Writes the 44 bytes of a header at the cursor, its two sizes 0 for now. Always true: a write that
// fails is logged, and shows when the samples cannot be written either.
VEXO_UTILS_API bool writeWavHeader(vexo::utils::File& file, uint16_t channels, uint32_t sampleRate);

// Fills in the sizes and closes the file. The cursor must be behind the last sample.
// False, with the file still open: "EMPTY WAV" when there are no samples, "Internal error".
VEXO_UTILS_API bool finalizeWavHeader(vexo::utils::File& file);

// Reads what the header says; nothing is changed on failure. The format chunk must come first and
// say PCM with 16 bits; other chunks may stand between it and the samples. The tag of the samples
// is looked for in steps of two bytes: at an odd offset, or behind another "da", it is not found.
// `dataSize` is in bytes and not compared with the file. A stream's, whose writer did not know it
// (0xFFFFFFFF), is given as what is left of the file, at most 4 GiB less one byte.
// False: "Failed to open WAV file", "Failed to read WAV header" and that with ": not a 16 bps
// source" or ": data section not found".
VEXO_UTILS_API bool readWavHeader(const std::string& path, uint16_t& channels, uint32_t& sampleRate,
                                  uint32_t& dataSize);

// Reads the samples of a file with the expected channels and sample rate and at most `maxDataSize`
// bytes of them, each unless it is 0. Nothing is allocated before all has been checked, but give a
// `maxDataSize` for files from outside, which may be as large as the file system allows.
// False, `data` unchanged: as readWavHeader; "Invalid channels"; "Invalid sample rate"; "WAV too
// large, dataSz=N, expectMax=N"; "Failed to read WAV contents", also when the file holds fewer
// bytes than its header says, or memory is short.
VEXO_UTILS_API bool readWav(const std::string& path, std::vector<uint8_t>& data,
                            uint16_t expectedChannels, uint32_t expectedSampleRate,
                            uint32_t maxDataSize);

// Scales the samples in the first `length` bytes to `volume` percent, rounding towards zero; an odd
// last byte is left alone. `samples` need not be aligned. A volume above 100 or below 0 changes
// nothing: the warning "Invalid volume chosen for the track: N".
VEXO_UTILS_API void setWavVolume(uint8_t* samples, int length, int volume);
