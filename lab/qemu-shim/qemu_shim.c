// SPDX-License-Identifier: ISC
/* Preloaded into the lab's programs when they run under user-mode qemu
 * (a cross build's lab, see lab/README.md): qemu-user 7.2 translates neither
 * setsockopt(MCAST_JOIN_GROUP) nor ioctl(SIOCGARP), which a device's kernel
 * has. Here they become what qemu does translate, or what the kernel would
 * answer; every other call goes to the C library as it is. Never on a device.
 */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <dlfcn.h>
#include <errno.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

/* Native children of the emulated program (the shell of system(), the
 * lab's stubs) must not be handed a preload for another CPU: the loader
 * would complain on their standard error. */
__attribute__((constructor)) static void forget_preload(void) { unsetenv("LD_PRELOAD"); }

typedef int setsockopt_fn(int, int, int, const void *, socklen_t);
typedef int ioctl_fn(int, unsigned long, ...);

int setsockopt(int fd, int level, int name, const void *value, socklen_t len) {
    static setsockopt_fn *next;
    if (!next) next = (setsockopt_fn *)dlsym(RTLD_NEXT, "setsockopt");
    if (level == IPPROTO_IP && name == MCAST_JOIN_GROUP && value && len >= sizeof(struct group_req)) {
        const struct group_req *g = value;
        if (g->gr_group.ss_family != AF_INET) {
            errno = EINVAL;
            return -1;
        }
        const struct in_addr group = ((const struct sockaddr_in *)&g->gr_group)->sin_addr;
        if (g->gr_interface == 0) {
            /* Any interface, as the kernel reads an ip_mreq: qemu copies no
             * index from a 64-bit guest's ip_mreqn (it expects a long there). */
            struct ip_mreq m = {group, {htonl(INADDR_ANY)}};
            return next(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &m, sizeof m);
        }
        struct ip_mreqn m;
        memset(&m, 0, sizeof m);
        m.imr_multiaddr = group;
        m.imr_ifindex = (int)g->gr_interface;
        return next(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &m, sizeof m);
    }
    return next(fd, level, name, value, len);
}

/* The neighbour entry of arp_pa on arp_dev, from the table the kernel
 * shows in /proc/net/arp (the same entries SIOCGARP reads: incomplete ones
 * with a zero address and no flags, none of NOARP devices). */
static int arp_lookup(struct arpreq *r) {
    if (!r->arp_dev[0] || !if_nametoindex(r->arp_dev)) {
        errno = ENODEV;
        return -1;
    }
    if (r->arp_pa.sa_family != AF_INET) {
        errno = EPFNOSUPPORT;
        return -1;
    }
    char want[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &((const struct sockaddr_in *)&r->arp_pa)->sin_addr, want, sizeof want);
    FILE *f = fopen("/proc/net/arp", "re");
    if (!f) return -1;
    char line[256], ip[64], dev[64];
    unsigned type, flags, mac[6];
    int found = 0;
    if (fgets(line, sizeof line, f)) /* the column titles */
        while (!found && fgets(line, sizeof line, f))
            found = sscanf(line, "%63s 0x%x 0x%x %x:%x:%x:%x:%x:%x %*s %63s", ip, &type, &flags, &mac[0], &mac[1],
                           &mac[2], &mac[3], &mac[4], &mac[5], dev) == 10 &&
                    strcmp(ip, want) == 0 && strcmp(dev, r->arp_dev) == 0;
    fclose(f);
    if (!found) {
        errno = ENXIO;
        return -1;
    }
    r->arp_ha.sa_family = (sa_family_t)type;
    for (int i = 0; i < 6; i++) r->arp_ha.sa_data[i] = (char)mac[i];
    r->arp_flags = (int)flags;
    return 0;
}

int ioctl(int fd, unsigned long request, ...) {
    static ioctl_fn *next;
    if (!next) next = (ioctl_fn *)dlsym(RTLD_NEXT, "ioctl");
    va_list ap;
    va_start(ap, request);
    void *arg = va_arg(ap, void *);
    va_end(ap);
    if (request == SIOCGARP && arg) return arp_lookup(arg);
    return next(fd, request, arg);
}
