// What libqmtahostsvc.so exports. The library is built with hidden
// visibility: only the platform entries (the C functions of platform/*.h,
// each defined with QMTA_HOSTSVC_API) and the functions declared with
// QMTA_HOSTSVC_API in control.h, testhooks.h and host/drivers/driver.h are
// seen from outside it. exports.map keeps the standard library's template
// instances in, too.
#ifndef HOST_SERVICES_EXPORT_H_
#define HOST_SERVICES_EXPORT_H_

#define QMTA_HOSTSVC_API __attribute__((visibility("default")))

#endif  // HOST_SERVICES_EXPORT_H_
