{$IFDEF FPC}{$MODE DELPHI}{$CODEPAGE UTF8}{$ELSE}{$APPTYPE CONSOLE}{$ENDIF}
// Host SERVER PORT FILE RECIPIENT...: a text, two attachments, and a letter to each of the others, where one that fails
// stops no other. Free Pascal: fpc -Fubindings/delphi -FlFOLDER_OF_THE_LIBRARY examples/Host.pas
program Host;

uses
  SysUtils, VelMail;

var
  Connection: TConnection;

function Describe(Recipient: Integer; const Subject: UnicodeString): TMail;
begin
  Result := TMail.Create;
  Result.SetFrom('me@example.com', 'Me');
  Result.AddTo(UnicodeString(ParamStr(Recipient)));
  Result.Subject := Subject;
  Result.Text := 'Grüße'#10;
end;

procedure Send(Mail: TMail); // and free it
begin
  try
    Connection.Send(Mail);
  finally
    Mail.Free;
  end;
end;

var
  Files: TMail;
  I: Integer;
begin
  if ParamCount < 4 then
    Halt(2);
  Connection := TConnection.Create(TSettings.Make(UnicodeString(ParamStr(1)), UnicodeString(ParamStr(2))));
  try
    Send(Describe(4, 'Hello'));
    Files := Describe(4, 'Two files');
    Files.Attach(UnicodeString(ParamStr(3)), '', 'application/octet-stream');
    Files.Attach(BytesOf(UTF8Encode('Grüße'#13#10)), 'note.txt', 'text/plain');
    Send(Files);
    for I := 5 to ParamCount do
      try
        Send(Describe(I, 'To each'));
      except
        on Failure: EVelMail do // of this mail; the connection goes on
        begin
          WriteLn(ErrOutput, ParamStr(I), ': ', Failure.Message, #10, Failure.Report);
          ExitCode := 1;
        end;
      end;
  finally
    Connection.Free;
  end;
end.
