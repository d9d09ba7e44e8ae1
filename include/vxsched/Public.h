#ifndef VXSCHED_PUBLIC_H
#define VXSCHED_PUBLIC_H

/* What libvxsched-client exports: just what carries this, since all else is compiled hidden. */
#define VXSCHED_PUBLIC __attribute__((visibility("default")))

#endif
