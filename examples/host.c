#include <stdio.h>
#include <velmail.h>

/* Ends the connection after a failure and says what went wrong. The code of a failed delivery surfaces at the next
   call, which does nothing else: so disconnect until that returns 1, and only then describe another mail. */
static int failed(const char *call)
{
    int first = 0, code;
    char text[128] = "";
    VelMailGetLastError(&first);
    do {
        code = 0;
        if (VelMailDisconnect())
            break;
        VelMailGetLastError(&code);
        first = first != 0 ? first : code;
    } while (code != 0); /* no code: there is no connection */
    VelMailGetErrorText(first, text, sizeof text);
    fprintf(stderr, "%s: error %d: %s\n", call, first, text);
    return 0;
}

static int set(const char *name, const char *value)
{
    return VelMailSetProperty(name, value) || failed(name); /* 0: not done, the property is as before */
}

static int send_to(const char *recipient)
{
    if (!set("MailRecipientsMailBox", recipient))
        return 0;
    if (!VelMailConnect())
        return failed("connect");
    if (!VelMailSend())
        return failed("send");
    return VelMailDisconnect() || failed("disconnect");
}

int main(int count, char **arguments) /* host SERVER PORT LETTER RECIPIENT... */
{
    int i, failures = 0;
    if (count < 5 || !set("MailServer", arguments[1]) || !set("MailServerPort", arguments[2]) ||
        !set("MailTextFilename", arguments[3]) || !set("MailSenderMailBox", "me@example.com") ||
        !set("MailSubject", "Hello"))
        return 2;
    for (i = 4; i < count; ++i)
        failures += !send_to(arguments[i]);
    return failures != 0;
}
