// Each MISUSE_n below must fail to compile; without any, the file compiles.
// Built by the toolkit_misuse_* tests with -fsyntax-only.
#include <iterator>

#include "platform/command.h"
#include "tavc/tlv_walk.h"

struct Req {
    char user_name[65];
    char password[65];
    char file[64];
    uint16_t port;
    uint32_t delay;
};

constexpr TlvRule kRules[] = {
    tlv_precedence(),
    tlv_text(55, Take::DeclaredMax, 65, TAVC_FIELD(Req, user_name)),
    tlv_text(56, Take::DeclaredMax, 65, TAVC_FIELD(Req, password)),
    tlv_be16(0x18C, TAVC_FIELD(Req, port)),
    tlv_be32(0x188, TAVC_FIELD(Req, delay)),
#if MISUSE == 1  // a 32-bit store on a 16-bit member
    tlv_be32(0x18D, TAVC_FIELD(Req, port)),
#endif
#if MISUSE == 2  // text into a number
    tlv_text(0x18E, Take::Declared, 0, TAVC_FIELD(Req, delay)),
#endif
};

constexpr TlvRequest<Req> kReq{
    kRules,
#if MISUSE == 3  // refusal codes in the wrong order
    Take::Declared, PrecedenceRefusal{0xFFFF}, ParamRefusal{0xFFFD},
#elif MISUSE == 4  // bare numbers
    Take::Declared, 0xFFFD, 0xFFFF,
#else
    Take::Declared, ParamRefusal{0xFFFD}, PrecedenceRefusal{0xFFFF},
#endif
#if MISUSE == 5  // authentication without credential members
    AuthRefusal{0x40}
#else
    AuthRefusal{0x40}, tlv_credentials(TAVC_FIELD(Req, user_name), TAVC_FIELD(Req, password))
#endif
};

struct Other {
    char x[200];
};
#if MISUSE == 6  // a rule for another struct's member, outside this one
constexpr TlvRule kOther[] = {tlv_text(1, Take::Declared, 0, TAVC_FIELD(Other, x))};
struct Small {
    char y[8];
};
constexpr TlvRequest<Small> kSmall{kOther, Take::Declared, NoParamCheck{},
                                   PrecedenceRefusal{1}, NoAuth{}};
#endif

#if MISUSE == 10  // a member beyond 16-bit offsets
struct Huge {
    char pad[70000];
    char name[8];
};
constexpr TlvRule kHuge[] = {tlv_text(1, Take::Declared, 0, TAVC_FIELD(Huge, name))};
#endif

int compose(const Req &r) {
    Command ok("tftp -f %s -r %s -P %u", r.file, r.user_name, r.port);
#if MISUSE == 7  // request text through a number conversion
    Command bad("tftp -P %d", r.file);
#endif
#if MISUSE == 8  // too few arguments
    Command bad("tftp -f %s -r %s", r.file);
#endif
#if MISUSE == 9  // a format that is not a literal
    const char *f = r.file;
    Command bad(f);
#endif
#if MISUSE == 20  // composed text straight to the shell
    return proc_system(r.file);
#endif
#if MISUSE == 21  // a mutable buffer, even a global one
    static char line[16] = "submit COMMIT";
    return proc_system(line);
#endif
#if MISUSE == 22  // a pointer
    const char *p = r.file;
    return proc_read(p, nullptr, 0);
#endif
    return ok.system() + proc_system("submit COMMIT");
}
