// The precompiled header needs one translation unit.
