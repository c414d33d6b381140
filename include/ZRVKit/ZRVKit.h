#pragma once
// Everything ZRVKit offers the launcher application.

#include <ZRVKit/PerformBlock.h>
#include <ZRVKit/ZRVBundle.h>
#include <ZRVKit/ZRVData.h>
#include <ZRVKit/ZRVError.h>
#include <ZRVKit/ZRVException.h>
#include <ZRVKit/ZRVExtensions.h>
#include <ZRVKit/ZRVFormat.h>
#include <ZRVKit/ZRVGlobals.h>
#include <ZRVKit/ZRVHTTPClient.h>
#include <ZRVKit/ZRVHosts.h>
#include <ZRVKit/ZRVJSON.h>
#include <ZRVKit/ZRVLog.h>
#include <ZRVKit/ZRVMainQueue.h>
#include <ZRVKit/ZRVOperationQueue.h>
#include <ZRVKit/ZRVServerStatus.h>
#include <ZRVKit/ZRVURL.h>
