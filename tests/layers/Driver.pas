{$MODE DELPHI}
// Does what the lines of its input say, in fields with tabs between them, and answers each one that can fail with a line:
// "ok", "ok" and a code beside the success and a report, or what was raised.
program Driver;

uses
  CThreads, Classes, SysUtils, VelMail;

type
  TFields = array [0 .. 15] of UnicodeString;

  TElsewhere = class(TThread)
  public
    Answer: UnicodeString;
    Canceled: TProgress; // if nil, a send is attempted
    procedure Execute; override;
  end;

var
  Connection: TConnection;
  Mail: TMail;

function Show(const Sent: TSent): UnicodeString;
begin
  Result := UnicodeString(Format('ok %d ', [Sent.Code])) + Sent.Report
    + UnicodeString(Format('refused:%d', [Length(Sent.Refused)]));
end;

function ReadSettings(const Fields: TFields): TSettings;
var
  I, Ending: Integer;
  Name, Value: UnicodeString;
begin
  Result := TSettings.Make('127.0.0.1', '');
  for I := 1 to High(Fields) do
  begin
    Ending := Pos(UnicodeString('='), Fields[I]);
    Name := Copy(Fields[I], 1, Ending - 1);
    Value := Copy(Fields[I], Ending + 1, Length(Fields[I]));
    if Name = 'Protocol' then
      Result.Protocol := Value
    else if Name = 'Port' then
      Result.Port := Value
    else if Name = 'Security' then
      Result.Security := Value
    else if Name = 'CAFile' then
      Result.CAFile := Value
    else if Name = 'Login' then
      Result.Login := Value
    else if Name = 'Password' then
      Result.Password := Value
    else if Name = 'Mechanism' then
      Result.Mechanism := Value
    else if Name = 'Charset' then
      Result.Charset := Value
    else if Name = 'Timeout' then
      Result.Timeout := StrToInt(string(Value))
    else if Name <> '' then
      Result.Properties := [Fields[I]];
  end;
end;

procedure Describe(const Fields: TFields);
var
  Stream: TStream;
begin
  if Fields[0] = 'From' then
    Mail.SetFrom(Fields[1], Fields[2])
  else if Fields[0] = 'ReplyTo' then
    Mail.SetReplyTo(Fields[1], Fields[2])
  else if Fields[0] = 'To' then
    Mail.AddTo(Fields[1], Fields[2])
  else if Fields[0] = 'Cc' then
    Mail.AddCc(Fields[1], Fields[2])
  else if Fields[0] = 'Bcc' then
    Mail.AddBcc(Fields[1], Fields[2])
  else if Fields[0] = 'Bulk' then
    Mail.Bulk := True
  else if Fields[0] = 'Subject' then
    Mail.Subject := Fields[1]
  else if Fields[0] = 'Text' then
    Mail.Text := Fields[1]
  else if Fields[0] = 'ContentType' then
    Mail.ContentType := Fields[1]
  else if Fields[0] = 'Headers' then
    Mail.Headers := Fields[1]
  else if Fields[0] = 'path' then
    Mail.Attach(Fields[1], Fields[2], Fields[3])
  else if Fields[0] = 'memory' then
    Mail.Attach(BytesOf(UTF8Encode(Fields[1])), Fields[2], Fields[3])
  else if Fields[0] = 'stream' then
  begin
    Stream := TBytesStream.Create(BytesOf(UTF8Encode(Fields[1])));
    try
      Mail.Attach(Stream, Fields[2], Fields[3]);
    finally
      Stream.Free;
    end;
  end;
end;

function Attempt(const Fields: TFields): UnicodeString; forward;

// On another thread: cancels what `Progress` is given to, or attempts a send.
function Elsewhere(Progress: TProgress): UnicodeString;
var
  Thread: TElsewhere;
begin
  Thread := TElsewhere.Create(True);
  try
    Thread.Canceled := Progress;
    Thread.Start;
    if Progress <> nil then
      Connection.Send(Mail, Progress);
    Thread.WaitFor;
    Result := Thread.Answer;
  finally
    Thread.Free;
  end;
end;

function Watch(const Command: UnicodeString): UnicodeString;
var
  Progress: TProgress;
begin
  Progress := TProgress.Create;
  try
    if Command = 'cancel' then
      Exit(Elsewhere(Progress));
    Connection.Send(Mail, Progress);
    Result := UnicodeString(Format('ok %d', [Progress.Total]));
    if Progress.Done <> Progress.Total then
      Result := 'not all';
  finally
    Progress.Free;
  end;
end;

function Perform(const Fields: TFields): UnicodeString;
begin
  Result := '';
  if Fields[0] = 'connect' then
  begin
    Connection := TConnection.Create(ReadSettings(Fields));
    Result := 'ok';
  end
  else if Fields[0] = 'close' then
    FreeAndNil(Connection)
  else if (Fields[0] = 'mail') or (Fields[0] = 'nobody') then
  begin
    Mail.Free;
    Mail := TMail.Create;
    Mail.SetFrom('ada@host.example');
    Mail.Subject := 'Hello';
    Mail.Text := 'Text';
    if Fields[0] = 'mail' then
      Mail.AddTo('bob@host.example');
  end
  else if Fields[0] = 'send' then
    Result := Show(Connection.Send(Mail))
  else if Fields[0] = 'elsewhere' then
    Result := Elsewhere(nil)
  else if (Fields[0] = 'watch') or (Fields[0] = 'cancel') then
    Result := Watch(Fields[0])
  else
    Describe(Fields);
end;

function Attempt(const Fields: TFields): UnicodeString;
begin
  try
    Result := Perform(Fields);
  except
    on Failure: EVelMail do
      Result := UnicodeString(Format('%d ', [Failure.Code])) + Failure.Sentence + '|' + Failure.Report;
    on Failure: EInvalidOpException do
      Result := 'misuse';
  end;
end;

procedure TElsewhere.Execute;
var
  Fields: TFields;
begin
  Fields[0] := 'send';
  if Canceled <> nil then
    Canceled.Cancel
  else
    Answer := Attempt(Fields);
end;

function Split(Line: UnicodeString): TFields;
var
  I, Ending: Integer;
begin
  Line := UnicodeStringReplace(Line, '\n', #10, [rfReplaceAll]);
  Line := UnicodeStringReplace(Line, '\0', #0, [rfReplaceAll]) + #9;
  for I := 0 to High(Result) do
  begin
    Ending := Pos(UnicodeString(#9), Line);
    Result[I] := Copy(Line, 1, Ending - 1);
    Delete(Line, 1, Ending);
  end;
end;

var
  Line: RawByteString;
  Answer: UnicodeString;
begin
  while not EOF do
  begin
    ReadLn(Line);
    Answer := Attempt(Split(UTF8ToString(Line)));
    if Answer <> '' then
      WriteLn(UTF8Encode(UnicodeStringReplace(Answer, #10, '|', [rfReplaceAll])));
  end;
end.
