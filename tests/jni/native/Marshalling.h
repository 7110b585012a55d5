// The bridge's functions that convert between Java and native values. No header of the bridge declares them.
#pragma once

#include <jni.h>

#include <string>

jstring stoJstring(JNIEnv* env, const char* pat);
std::wstring JstringToWindows(JNIEnv* jenv, jstring jstr);
jstring WindowsToJstring(JNIEnv* jenv, const std::wstring& str);
