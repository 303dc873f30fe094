/* A host in C as the README shows it, built against an installed library by both of its ways. */
#include <stdio.h>
#include <string.h>
#include <velmail.h>

int main(void)
{
    char text[128] = "";
    char subject[16] = "";
    if (VelMailGetVersionText(text, sizeof text) != 1 || strcmp(text, "VEL mail 1.3.2.0/mt") != 0)
        return 1;
    if (VelMailSetProperty("MailSubject", "Hello") != 1 ||
        VelMailGetProperty("MailSubject", subject, sizeof subject) != 1 || strcmp(subject, "Hello") != 0)
        return 2;
    puts(text);
    return 0;
}
