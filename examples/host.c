#include <stdio.h>
#include <velmail.h>

static int report(const char *call)
{
    int code = 0;
    char text[128] = "";
    VelMailGetLastError(&code);
    if (code == 0 && !VelMailDisconnect()) /* a failed delivery's code surfaces at the next call */
        VelMailGetLastError(&code);
    VelMailGetErrorText(code, text, sizeof text);
    fprintf(stderr, "%s: error %d: %s\n", call, code, text);
    return 1;
}

int main(void)
{
    VelMailSetProperty("MailServer", "localhost");
    VelMailSetProperty("MailSenderMailBox", "me@example.com");
    VelMailSetProperty("MailRecipientsMailBox", "you@example.com");
    VelMailSetProperty("MailSubject", "Hello");
    VelMailSetProperty("MailTextFilename", "letter.txt");
    if (!VelMailConnect())
        return report("connect");
    if (!VelMailSend())
        return report("send");
    return VelMailDisconnect() ? 0 : report("disconnect");
}
