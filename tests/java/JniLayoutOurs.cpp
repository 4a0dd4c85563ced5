// Our own jni.h, described.
#include "jni.h"
#ifndef NFSLIB_JNI_H
#error "this must be our own jni.h"
#endif

#define DESCRIBE DescribeOurHeader
#include "JniLayout.inc"
