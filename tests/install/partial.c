/* A library under the transport's name that has one of its functions. */
void *smtp_create_session(void);

__declspec(dllexport) void *smtp_create_session(void)
{
    return 0;
}
