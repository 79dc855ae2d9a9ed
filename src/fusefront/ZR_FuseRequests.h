// The table of the FUSE front's request functions, one for each kernel
// request it serves; the session's user data is the ZR_FuseFront.
#pragma once

struct fuse_lowlevel_ops;

const fuse_lowlevel_ops& ZR_FuseRequests();
