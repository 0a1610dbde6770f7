// Umbrella header of the vel client library: everything an application
// needs to keep a local mirror consistent with the remote file service.
//
//   #include <vel/vel.h>
//   VEL::init({{"clientType", "Local"}});
//   struct stat st;
//   VEL::stat("a/b.txt", &st, "UTF-8");
#ifndef VEL_VEL_H_
#define VEL_VEL_H_

#include "vel/client.h"
#include "vel/client_config.h"
#include "vel/client_local.h"
#include "vel/client_tavora.h"
#include "vel/codeset.h"
#include "vel/fstream.h"
#include "vel/hooks.h"
#include "vel/instance.h"
#include "vel/json_obj.h"
#include "vel/listing.h"
#include "vel/local_perm.h"
#include "vel/log.h"
#include "vel/mutations.h"
#include "vel/paths.h"
#include "vel/query.h"
#include "vel/records.h"
#include "vel/tarn_client.h"

#endif  // VEL_VEL_H_
