// Three mails: a text, two attachments, and a letter to each of the others, where one that fails stops no
// other.
#include <iostream>
#include <string>
#include <vector>

#include <velmail.hpp>

int main(int count, char** arguments) // host SERVER PORT FILE RECIPIENT...
{
    if (count < 5) {
        return 2;
    }
    int failures = 0;
    try {
        velmail::Settings settings;
        settings.server = arguments[1];
        settings.port = arguments[2];
        velmail::Connection connection(settings);

        velmail::Mail mail;
        mail.from = {"me@example.com", "Me"};
        mail.to = {arguments[4]};
        mail.subject = "Hello";
        mail.text = "Grüße\n"; // this file is in UTF-8
        connection.Send(mail);

        mail.subject = "Two files";
        mail.attachments = {velmail::Attachment::File(arguments[3], "", "application/octet-stream"),
                            velmail::Attachment::Memory(std::string("Grüße\r\n"), "note.txt", "text/plain")};
        connection.Send(mail);

        mail.attachments.clear();
        mail.subject = "To each";
        for (int i = 5; i < count; ++i) {
            try {
                mail.to = {arguments[i]};
                connection.Send(mail);
            } catch (const velmail::Error& error) { // of this mail; the connection goes on
                std::cerr << arguments[i] << ": " << error.what() << '\n' << error.Report();
                ++failures;
            }
        }
    } catch (const velmail::Error& error) {
        std::cerr << error.what() << '\n';
        return 2;
    }
    return failures == 0 ? 0 : 1;
}
