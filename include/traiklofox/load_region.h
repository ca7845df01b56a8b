#pragma once

/// A server's load, published for the other processes of the machine.
///
/// The load stands in a named mapping (see file_mapping.h) of 34 words, "KZLoadValue" and a suffix that tells the
/// servers of one machine apart. Word 0 is the load in per cent, or LOAD_NO_SERVER. A beginning sets word 31 and word
/// 33 to 0 and word 32 to 0xFFFFFFFF; the rest is nobody's.
///
///     DWORD* region = nullptr;
///     const char* instance = "https-alpha";
///     if (InitLoadBalancingRegion(nullptr, &region, &instance)) KzSetServerLoad(42, region);
///
/// Any thread may call any function. The load is written and read in one piece; a reader gets what some writer stored
/// last.

#include <traiklofox/handle.h>

constexpr DWORD LOAD_NO_SERVER = 0xFFFFFFFF;  ///< instead of a load: no server is attached
constexpr DWORD LOAD_MAXIMUM = 100;           ///< the heaviest load

/// Opens the region, or makes it, and begins anew, every time and whoever else has it open: the load is LOAD_NO_SERVER.
///
/// mapping  may be null. Gets the mapping's handle, which the caller closes; without it, the view alone keeps the
///          memory.
/// region   may be null. Gets the region, for `DetachLoadBalancingRegion` to end; without it, it stays mapped.
/// suffix   may be null, as may `*suffix`: there is none then. It must not have a "/" in it.
/// Returns 1, or 0 with errno when the region cannot be made or mapped (see `CreateFileMapping`), with `*mapping` and
/// `*region` as they were.
///
/// A process that only wants to read the load resets it, too, by calling this: it takes `CreateFileMapping` and
/// `MapViewOfFile` instead.
TRAIKLOFOX_API BOOL InitLoadBalancingRegion(Handle** mapping, DWORD** region, const char** suffix);

/// Publishes the load. Returns 1, or 0 with nothing changed when it is above LOAD_MAXIMUM or `region` is null.
TRAIKLOFOX_API BOOL KzSetServerLoad(DWORD load, DWORD* region);

/// The load, or LOAD_NO_SERVER, also for a null `region`.
TRAIKLOFOX_API DWORD KzGetServerLoad(const DWORD* region);

/// Publishes LOAD_NO_SERVER and ends the region, which must not be used any more. Returns 1 in every case; does
/// nothing when `region` is null.
TRAIKLOFOX_API BOOL DetachLoadBalancingRegion(DWORD* region);

/// Do nothing and return 1.
TRAIKLOFOX_API BOOL KzSetServerUnrestricted();
TRAIKLOFOX_API BOOL KzSetServerRestricted();
