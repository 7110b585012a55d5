// The record that the benchmarks of the log make: that of a native's start.
#pragma once

inline constexpr wchar_t kType[] = L"[INFO] ";
inline constexpr wchar_t kFile[] = L"TAVClientJNI/vex_jni_TAVClientJNI.cpp";
inline constexpr wchar_t kFunction[] = L"Java_vex_jni_TAVClientJNI_P1SignString";
inline constexpr wchar_t kFormat[] = L"%s Enter.";
inline constexpr int kLine = 274;
