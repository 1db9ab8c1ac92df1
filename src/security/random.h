// Random numbers for keys, vectors and context ids. Each number is drawn from the registers and from the
// kernel, joined, so that it is as good as the better of both: a forked child never repeats its parent's
// numbers. All functions may run on any thread.
#pragma once

#include <cstddef>
#include <cstdint>

// Seeds the registers of the calling thread again. The other functions do that by themselves the first time.
void InitRandom();

// Ends the registers of the calling thread by wiping them. May be called repeatedly.
void CloseRandom();

// Mixes times, process data and kernel random into a seed of `length` bytes.
void GetSeed(uint8_t* seed, size_t length);

// The process ends with a line on stderr when the kernel gives no random bytes: nothing secret could be made.
uint32_t GetRandom();
void GetRandomEx(void* out, size_t length);

// GetRandomEx under the names by which the mechanism and the key exchange call it. 0, or 5002 for a null
// pointer.
int gss_GetRandom(void* out, size_t length);
int getRandomEx2(void* out, size_t length);
