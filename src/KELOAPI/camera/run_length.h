#pragma once

// Decodes the cameras' run-length format, which laser-line profiles come in.
//
//   0x01, 0x02     end of data
//   0x00 lo hi     lo + 256 * hi + 1 bytes of 0x00
//   0xFF n         n + 1 bytes of 0xFF
//   other          one byte of that value
//
// The output MUST have room for BufferSize + 1 bytes: a token's first byte is stored before the
// capacity is tested. Both sizes in bytes.
//
// Returns 1 or 2 when that end marker was reached; 3, 7, 8, 11, 12 when the output is too small for
// a zero run, a zero run, a 0xFF run, a 0xFF run, a literal; 4, 5, 6, 9, 10, 13 when the input ends
// within, or right behind, a token; 14 for an empty input, the output being filled with zeros; 0
// when nothing was decoded.
int DecodeRLE(void* pBuffer, const void* pRLEbuffer, int BufferSize, int RleMaxBufferSize);
