// VEL mail for Delphi and Free Pascal: the ten functions of VelMail64.dll or libVelMail64.so as two classes. For Delphi XE7
// and later and Free Pascal 3.2 and later, 64 bit.
//
// Texts are handed to the library as UTF-8, or in TSettings.Charset; the mail's text is labelled so. With the protocol
// "SUBMISSION" names and subject are encoded from it for the reader; over "SMTP" their bytes go out as they are. In Free
// Pascal a literal with more than ASCII needs {$CODEPAGE UTF8} in its source, and an AnsiString a widestring manager
// (cwstring on Linux).
//
// Failures are EVelMail, also what this layer refuses because the library could not take it: 99 for a property that the
// library does not have, 100 for a text or a combination of settings. A code that the library reports late, by the call after
// the one that failed, is fetched before the failing method ends: the next mail can be sent at once, on the same connection.
unit VelMail;

{$IFDEF FPC}{$MODE DELPHI}{$ENDIF}

interface

uses
  SysUtils, Classes;

type
  TLines = array of UnicodeString;

  // A connection that was not made, or a mail that was not sent or not to everyone.
  EVelMail = class(Exception)
  public
    Code: Integer; // the library's number for the failure, see docs/errors.md; 0 where it gave none
    Sentence: UnicodeString; // the library's, in English or German
    Report: UnicodeString; // see TSent
  end;

  // What became of a mail that the server took for somebody.
  TSent = record
    // A line for each recipient of each message, "250 bob@example.com 2.0.0 Ok"; empty with a library that has none.
    Report: UnicodeString;
    Code: Integer; // what went wrong beside the delivery, such as 650 for a recipient left out; 0 for nothing
    Sentence: UnicodeString;
    function Refused: TLines; // the lines of those who do not get the mail; with SUBMISSION there are none
  end;

  // How to reach the server. An empty text stands for the library's default, see docs/properties.md.
  TSettings = record
    Protocol: UnicodeString; // "SMTP", to a relay, without encryption and login; "SUBMISSION"; on Windows "MAPI"
    Server, Port: UnicodeString;
    Security: UnicodeString; // SUBMISSION, as all up to Mechanism: "STARTTLS", "TLS" or "NONE"; empty: by the port
    CAFile: UnicodeString; // a PEM file that is trusted instead of the system's certificates
    Login, Password, Mechanism: UnicodeString; // an empty Login: none
    Charset: UnicodeString; // "UTF-8", "ISO-8859-1" or "WINDOWS-1252"; empty: UTF-8, with MAPI WINDOWS-1252
    Timeout: Integer; // seconds that the server may stay silent; 0: the library's limits
    Properties: TLines; // others, "Name=value", such as "MailTraceFilename=job.trc"
    // Begin with it: the fields of a record are not all empty by themselves.
    class function Make(const Server, Port: UnicodeString; const Protocol: UnicodeString = 'SMTP'): TSettings; static;
  end;

  // Bytes of text and attachments of a send: all, and those read so far. Any thread may use it. It must outlive the send,
  // and belongs to one send.
  TProgress = class
  private
    FWords: record
      Total, Done, Cancel: Int64;
    end;
  public
    procedure Cancel; // ends the send, with code 151; nothing is delivered cut short
    property Total: Int64 read FWords.Total;
    property Done: Int64 read FWords.Done;
  end;

  TAddress = record
    Mailbox, Name: UnicodeString;
  end;

  TAddresses = array of TAddress;

  TAttachment = record
    Path, Name, MimeType: UnicodeString; // without a Path the content counts
    Content: TBytes;
  end;

  // One mail. It may be sent several times and over several connections, and must not be changed while it is sent.
  TMail = class
  private
    FFrom, FReplyTo: TAddress;
    FTo, FCc, FBcc: TAddresses;
    FAttachments: array of TAttachment;
    FSubject, FText, FContentType, FHeaders: UnicodeString;
    FBulk: Boolean;
    procedure Add(var Addresses: TAddresses; const Mailbox, Name: UnicodeString);
    procedure AddAttachment(const Path, Name, MimeType: UnicodeString; const Content: TBytes);
  public
    procedure SetFrom(const Mailbox: UnicodeString; const Name: UnicodeString = '');
    procedure SetReplyTo(const Mailbox: UnicodeString; const Name: UnicodeString = '');
    // With MAPI a name without a mailbox is looked up by the mail client.
    procedure AddTo(const Mailbox: UnicodeString; const Name: UnicodeString = '');
    procedure AddCc(const Mailbox: UnicodeString; const Name: UnicodeString = '');
    // Over SMTP they stand in the message as it is submitted: the server must drop the field.
    procedure AddBcc(const Mailbox: UnicodeString; const Name: UnicodeString = '');
    // Attaches a file, read while the mail is sent: by the library in pieces where it can be, else as a whole into memory.
    // The latter in a mail that also has attachments in memory, for another name than the path's, a path with ";", and a
    // path that is not ASCII on Windows or with another charset than UTF-8. The MIME type has no parameters; empty:
    // "text/plain", with SUBMISSION by the name.
    procedure Attach(const Path: UnicodeString; const Name: UnicodeString = ''; const MimeType: UnicodeString = ''); overload;
    // Attaches Content, which is not copied. Over SMTP an attachment without a byte is left out.
    procedure Attach(const Content: TBytes; const Name: UnicodeString; const MimeType: UnicodeString = ''); overload;
    // Reads from the stream's position to its end, into memory, and attaches that. The stream stays the caller's.
    procedure Attach(Content: TStream; const Name: UnicodeString; const MimeType: UnicodeString = ''); overload;
    property Subject: UnicodeString read FSubject write FSubject; // required
    property Text: UnicodeString read FText write FText;
    // Without a charset: the connection's is added. Empty: "text/plain".
    property ContentType: UnicodeString read FContentType write FContentType;
    // Further header lines, "Name: value", with line ends between them; with SUBMISSION only.
    property Headers: UnicodeString read FHeaders write FHeaders;
    property Bulk: Boolean read FBulk write FBulk; // one message for each To recipient
  end;

  // A thread's connection. It must be made, used and freed on one thread, as all that the library keeps belongs to a
  // thread, which has one at a time. SMTP reaches the server at each send, SUBMISSION connects and logs in with Create.
  TConnection = class
  private
    FCharset: UnicodeString;
    FSubmission: Boolean;
    FKept: array of TBytes; // what the library reads during a send
    function Encode(const Text: UnicodeString): RawByteString;
    function Decode(const Bytes: RawByteString): UnicodeString;
    function GetProperty(const Name: RawByteString): UnicodeString;
    procedure Require(const Name, Value: UnicodeString);
    procedure RequireAddresses(const Kind: UnicodeString; const Addresses: TAddresses);
    procedure RequireAttachments(Mail: TMail);
    procedure Describe(Mail: TMail);
    function IsForLibrary(const Attachment: TAttachment): Boolean;
    function Block(const Content: TBytes): UnicodeString;
  public
    // Raises EVelMail when there is no connection or the settings cannot be used, EInvalidOpException when the thread has
    // one.
    constructor Create(const Settings: TSettings);
    // Ends the connection and forgets the settings, the password among them. On another thread than the connection's it
    // does neither: they end with their thread.
    destructor Destroy; override;
    // Sends one mail and waits for the server's answer. Raises EVelMail when the mail was not sent or broke off (some may
    // have got it, if the report says so), with code 62 when the server refused it for everyone. The report of a success
    // may hold refusals, too, over SMTP. With a library that has none it is empty, and a mail that was refused for everyone
    // counts as sent.
    function Send(Mail: TMail; Progress: TProgress = nil): TSent;
  end;

// The library's version, such as "VEL mail 1.3.2.0/mt".
function LibraryVersion: UnicodeString;

implementation

const
{$IFDEF MSWINDOWS}
  Library64 = 'VelMail64.dll';
{$ELSE}
  Library64 = 'libVelMail64.so';
{$ENDIF}
  CodeNoTrace = 17;
  CodeRefused = 62;
  CodeUnknown = 99;
  CodeInvalid = 100;
  CodeAttachment = 659;
  // What Windows-1252 has at 128 to 159; 0 for nothing.
  Windows1252: array [128 .. 159] of Word = ($20AC, 0, $201A, $192, $201E, $2026, $2020, $2021, $2C6, $2030, $160, $2039,
    $152, 0, $17D, 0, 0, $2018, $2019, $201C, $201D, $2022, $2013, $2014, $2DC, $2122, $161, $203A, $153, 0, $17E, $178);

function VelMailSetProperty(Name, Value: PAnsiChar): Integer; cdecl; external Library64;
function VelMailGetProperty(Name: PAnsiChar; Buffer: Pointer; Size: Cardinal): Integer; cdecl; external Library64;
function VelMailGetLastError(var Code: Integer): Integer; cdecl; external Library64;
function VelMailGetErrorText(Code: Integer; Buffer: PAnsiChar; Size: Integer): Integer; cdecl; external Library64;
function VelMailGetVersionText(Buffer: PAnsiChar; Size: NativeUInt): Integer; cdecl; external Library64;
function VelMailConnect: Integer; cdecl; external Library64;
function VelMailSend: Integer; cdecl; external Library64;
function VelMailDisconnect: Integer; cdecl; external Library64;

type
  TWorkingCall = function: Integer; cdecl;

threadvar
  OpenConnection: TConnection; // the thread's

// Code in C expects that a division by zero raises nothing, which is the program's own choice here.
function WithoutFloatExceptions(WorkingCall: TWorkingCall): Boolean;
var
  Saved: Cardinal;
begin
  Saved := GetMXCSR;
  SetMXCSR(Saved or $1F80);
  Result := WorkingCall() <> 0;
  SetMXCSR(Saved);
end;

function LastError: Integer;
begin
  Result := 0;
  // It fails when the thread's trace file cannot be used: then all calls fail, and none can say so.
  if VelMailGetLastError(Result) = 0 then
    Result := CodeNoTrace;
end;

// The code that is waiting for the next working call, if any: this one, which changes nothing.
function TakeLateCode: Integer;
var
  Flag: Integer;
begin
  if VelMailGetProperty('UseBulkMail', @Flag, SizeOf(Flag)) <> 0 then
    Result := 0
  else
    Result := LastError;
end;

function Widen(const Bytes: RawByteString): UnicodeString;
var
  I: Integer;
begin
  SetLength(Result, Length(Bytes));
  for I := 1 to Length(Bytes) do
    Result[I] := WideChar(Ord(Bytes[I]));
end;

function SentenceOf(Code: Integer): UnicodeString;
var
  Text: array [0 .. 127] of AnsiChar;
begin
  if (Code <> 0) and (VelMailGetErrorText(Code, Text, SizeOf(Text)) <> 0) then
    Result := Widen(RawByteString(PAnsiChar(@Text[0]))) // Windows-1252, but no text has more than what Latin-1 has
  else
    Result := 'no reason is known';
end;

function Failure(Code: Integer; const Sentence: UnicodeString; const Report: UnicodeString = ''): EVelMail;
begin
  Result := EVelMail.Create(string(UnicodeString(Format('error %d: ', [Code])) + Sentence));
  Result.Code := Code;
  Result.Sentence := Sentence;
  Result.Report := Report;
end;

function LibraryVersion: UnicodeString;
var
  Text: array [0 .. 63] of AnsiChar;
begin
  VelMailGetVersionText(Text, SizeOf(Text));
  Result := Widen(RawByteString(PAnsiChar(@Text[0])));
end;

function LastPart(const Path: UnicodeString): UnicodeString; // as the library takes it, on every system
var
  I: Integer;
begin
  I := Length(Path);
  while (I > 0) and (Path[I] <> '/') and (Path[I] <> '\') do
    Dec(I);
  Result := Copy(Path, I + 1, Length(Path));
end;

function ReadWhole(const Path: UnicodeString): TBytes;
var
  Handle: THandle;
  Stream: THandleStream;
begin
  Result := nil;
  Handle := FileOpen({$IFDEF FPC}UTF8Encode(Path){$ELSE}Path{$ENDIF}, fmOpenRead or fmShareDenyNone);
  if Handle = THandle(-1) then
    raise Failure(CodeAttachment, 'The file ' + Path + ' cannot be opened.');
  Stream := THandleStream.Create(Handle);
  try
    SetLength(Result, Stream.Size);
    Stream.ReadBuffer(Pointer(Result)^, Length(Result));
  finally
    Stream.Free;
    FileClose(Handle);
  end;
end;

function Join(const Parts: TLines): UnicodeString;
var
  I: Integer;
begin
  Result := '';
  for I := 0 to High(Parts) do
  begin
    if Pos(UnicodeString(';'), Parts[I]) > 0 then
      raise Failure(CodeInvalid, 'An address, a name or a MIME type cannot contain ";".');
    if I > 0 then
      Result := Result + ';';
    Result := Result + Parts[I];
  end;
end;

function BlockAt(Address: Pointer; Size: Int64): UnicodeString;
begin
  Result := UnicodeString(IntToStr(Int64(NativeUInt(Address))) + ';' + IntToStr(Size));
end;

{ TSent }

function TSent.Refused: TLines;
var
  Rest: UnicodeString;
  Ending: Integer;
begin
  Result := nil;
  Rest := Report;
  while Rest <> '' do
  begin
    Ending := Pos(UnicodeString(#10), Rest + #10);
    if Rest[1] <> '2' then
    begin
      SetLength(Result, Length(Result) + 1);
      Result[High(Result)] := Copy(Rest, 1, Ending - 1);
    end;
    Delete(Rest, 1, Ending);
  end;
end;

{ TSettings }

class function TSettings.Make(const Server, Port, Protocol: UnicodeString): TSettings;
begin
  Result := Default(TSettings);
  Result.Server := Server;
  Result.Port := Port;
  Result.Protocol := Protocol;
end;

{ TProgress }

procedure TProgress.Cancel;
begin
  FWords.Cancel := 1;
end;

{ TMail }

procedure TMail.Add(var Addresses: TAddresses; const Mailbox, Name: UnicodeString);
begin
  SetLength(Addresses, Length(Addresses) + 1);
  Addresses[High(Addresses)].Mailbox := Mailbox;
  Addresses[High(Addresses)].Name := Name;
end;

procedure TMail.AddAttachment(const Path, Name, MimeType: UnicodeString; const Content: TBytes);
begin
  if Name = '' then
    raise Failure(CodeInvalid, 'An attachment needs a name.');
  SetLength(FAttachments, Length(FAttachments) + 1);
  FAttachments[High(FAttachments)].Path := Path;
  FAttachments[High(FAttachments)].Name := Name;
  FAttachments[High(FAttachments)].MimeType := MimeType;
  FAttachments[High(FAttachments)].Content := Content;
end;

procedure TMail.SetFrom(const Mailbox, Name: UnicodeString);
begin
  FFrom.Mailbox := Mailbox;
  FFrom.Name := Name;
end;

procedure TMail.SetReplyTo(const Mailbox, Name: UnicodeString);
begin
  FReplyTo.Mailbox := Mailbox;
  FReplyTo.Name := Name;
end;

procedure TMail.AddTo(const Mailbox, Name: UnicodeString);
begin
  Add(FTo, Mailbox, Name);
end;

procedure TMail.AddCc(const Mailbox, Name: UnicodeString);
begin
  Add(FCc, Mailbox, Name);
end;

procedure TMail.AddBcc(const Mailbox, Name: UnicodeString);
begin
  Add(FBcc, Mailbox, Name);
end;

procedure TMail.Attach(const Path, Name, MimeType: UnicodeString);
begin
  if Name <> '' then
    AddAttachment(Path, Name, MimeType, nil)
  else
    AddAttachment(Path, LastPart(Path), MimeType, nil);
end;

procedure TMail.Attach(const Content: TBytes; const Name, MimeType: UnicodeString);
begin
  AddAttachment('', Name, MimeType, Content);
end;

procedure TMail.Attach(Content: TStream; const Name, MimeType: UnicodeString);
var
  Bytes: TBytes;
  Size, Got: Integer;
begin
  SetLength(Bytes, 65536);
  Size := 0;
  repeat
    if Size = Length(Bytes) then
      SetLength(Bytes, 2 * Size);
    Got := Content.Read(Bytes[Size], Length(Bytes) - Size);
    Inc(Size, Got);
  until Got <= 0;
  SetLength(Bytes, Size);
  AddAttachment('', Name, MimeType, Bytes);
end;

{ TConnection }

constructor TConnection.Create(const Settings: TSettings);
var
  Line: UnicodeString;
  Connected: Boolean;
  Code, Ending: Integer;
begin
  inherited Create;
  if OpenConnection <> nil then
    raise EInvalidOpException.Create('This thread has a connection: free it first.');
  FSubmission := Settings.Protocol = 'SUBMISSION';
  if not FSubmission and (Settings.Security + Settings.CAFile + Settings.Login + Settings.Password + Settings.Mechanism <> '') then
    raise Failure(CodeInvalid, 'Encryption and login need the protocol SUBMISSION.');
  FCharset := Settings.Charset;
  if (FCharset = '') and (Settings.Protocol = 'MAPI') then
    FCharset := 'WINDOWS-1252'
  else if FCharset = '' then
    FCharset := 'UTF-8';
  if (FCharset <> 'UTF-8') and (FCharset <> 'ISO-8859-1') and (FCharset <> 'WINDOWS-1252') then
    raise Failure(CodeInvalid, 'The charset is "UTF-8", "ISO-8859-1" or "WINDOWS-1252".');
  OpenConnection := Self; // what is raised from here on destroys it
  TakeLateCode; // of a host that called the functions itself
  VelMailSetProperty('', nil); // all to their defaults
  Require('MailProtocol', Settings.Protocol);
  Require('MailServer', Settings.Server);
  Require('MailServerPort', Settings.Port);
  Require('MailDialog', '0'); // the defaults of a reset have it on
  Require('MailSecurity', Settings.Security);
  Require('MailSecurityCAFile', Settings.CAFile);
  Require('MailAuthLogin', Settings.Login);
  Require('MailAuthPassword', Settings.Password);
  Require('MailAuthMechanism', Settings.Mechanism);
  if FSubmission then
    Require('MailCharset', FCharset);
  if Settings.Timeout <> 0 then
    Require('MailTimeout', UnicodeString(IntToStr(Settings.Timeout)));
  for Line in Settings.Properties do
  begin
    Ending := Pos(UnicodeString('='), Line);
    if Ending < 2 then
      raise Failure(CodeUnknown, 'A property is "Name=value".');
    Require(Copy(Line, 1, Ending - 1), Copy(Line, Ending + 1, Length(Line)));
  end;
  Connected := WithoutFloatExceptions(VelMailConnect);
  if Connected then
    Code := TakeLateCode // MAPI tells late that nobody logged on
  else
    Code := LastError;
  if not Connected or (Code <> 0) then
    raise Failure(Code, SentenceOf(Code));
end;

destructor TConnection.Destroy;
begin
  if OpenConnection = Self then
  begin
    OpenConnection := nil;
    TakeLateCode;
    WithoutFloatExceptions(VelMailDisconnect);
    TakeLateCode;
    VelMailSetProperty('', nil);
  end;
  inherited Destroy;
end;

function TConnection.Send(Mail: TMail; Progress: TProgress): TSent;
var
  Succeeded, Taken: Boolean;
begin
  if OpenConnection <> Self then
    raise EInvalidOpException.Create('This connection belongs to another thread: create, use and free it on one.');
  TakeLateCode; // of a host that called the functions itself
  try
    Describe(Mail);
    if Progress <> nil then
      Require('MailProgressMemoryAddress', BlockAt(@Progress.FWords, SizeOf(Progress.FWords)));
    Succeeded := WithoutFloatExceptions(VelMailSend);
    Result.Code := LastError;
    if Result.Code = 0 then
      Result.Code := TakeLateCode;
    Result.Report := GetProperty('MailDeliveryReport');
    Taken := (Result.Report = '') or (Pos(UnicodeString(#10'2'), #10 + Result.Report) > 0);
    if not Succeeded then
      raise Failure(Result.Code, SentenceOf(Result.Code), Result.Report)
    else if not Taken then
      raise Failure(CodeRefused, SentenceOf(CodeRefused), Result.Report);
    Result.Sentence := '';
    if Result.Code <> 0 then
      Result.Sentence := SentenceOf(Result.Code);
  finally
    // The library must not keep addresses of memory that may be freed from here on.
    VelMailSetProperty('MailTextMemoryAddress', nil);
    VelMailSetProperty('MailAttachmentMemoryAddress', nil);
    VelMailSetProperty('MailProgressMemoryAddress', nil);
    FKept := nil;
  end;
end;

// All that belongs to a mail, so that nothing of the one before remains.
procedure TConnection.Describe(Mail: TMail);
const
  Flags: array [Boolean] of UnicodeString = ('0', '1');
var
  ContentType: UnicodeString;
  Text: RawByteString;
  Bytes: TBytes;
begin
  Require('MailSenderMailBox', Mail.FFrom.Mailbox);
  Require('MailSenderFullName', Mail.FFrom.Name);
  Require('MailReplyToMailBox', Mail.FReplyTo.Mailbox);
  Require('MailReplyToFullName', Mail.FReplyTo.Name);
  RequireAddresses('MailRecipients', Mail.FTo);
  RequireAddresses('MailCCRecipients', Mail.FCc);
  RequireAddresses('MailBCCRecipients', Mail.FBcc);
  Require('MailSubject', Mail.Subject);
  if not FSubmission and (Mail.Headers <> '') then
    raise Failure(CodeInvalid, 'Header lines need the protocol SUBMISSION.');
  Require('MailAdditionalSMTPHeader', Mail.Headers);
  Require('UseBulkMail', Flags[Mail.Bulk]);
  ContentType := Mail.ContentType;
  if ContentType = '' then
    ContentType := 'text/plain';
  if Pos('charset', LowerCase(string(ContentType))) > 0 then
    raise Failure(CodeInvalid, 'The text is in the connection''s charset: give its type alone.');
  Require('MailTextContentType', ContentType + '; charset=' + FCharset);
  Text := Encode(Mail.Text);
  SetLength(Bytes, Length(Text));
  Move(Pointer(Text)^, Pointer(Bytes)^, Length(Bytes));
  Require('MailTextMemoryAddress', Block(Bytes));
  RequireAttachments(Mail);
end;

procedure TConnection.RequireAttachments(Mail: TMail);
var
  Names, Types: TLines;
  Blocks: UnicodeString;
  InMemory: Boolean;
  I: Integer;
begin
  InMemory := False; // the library takes all from files or all from memory
  for I := 0 to High(Mail.FAttachments) do
    InMemory := InMemory or not IsForLibrary(Mail.FAttachments[I]);
  Blocks := '';
  SetLength(Names, Length(Mail.FAttachments));
  SetLength(Types, Length(Mail.FAttachments));
  for I := 0 to High(Mail.FAttachments) do
  begin
    Types[I] := Mail.FAttachments[I].MimeType;
    Names[I] := Mail.FAttachments[I].Path;
    if not InMemory then
      Continue;
    if Names[I] = '' then
      Blocks := Blocks + Block(Mail.FAttachments[I].Content) + ';'
    else
      Blocks := Blocks + Block(ReadWhole(Names[I])) + ';';
    Names[I] := Mail.FAttachments[I].Name;
  end;
  Require('MailAttachmentFilename', Join(Names));
  Require('MailAttachmentMimeType', Join(Types));
  Require('MailAttachmentMemoryAddress', Blocks);
end;

// The library reads names of files in the system's encoding, and sends the last part as it is.
function TConnection.IsForLibrary(const Attachment: TAttachment): Boolean;
var
  Letter: WideChar;
begin
  Result := (Attachment.Path <> '') and (Attachment.Name = LastPart(Attachment.Path));
  for Letter in Attachment.Path do
    Result := Result and (Letter <> ';') and
      ((Ord(Letter) < 128) {$IFNDEF MSWINDOWS} or (FCharset = 'UTF-8') {$ENDIF});
end;

procedure TConnection.RequireAddresses(const Kind: UnicodeString; const Addresses: TAddresses);
var
  Mailboxes, Names: TLines;
  I: Integer;
begin
  SetLength(Mailboxes, Length(Addresses));
  SetLength(Names, Length(Addresses));
  for I := 0 to High(Addresses) do
  begin
    Mailboxes[I] := Addresses[I].Mailbox;
    Names[I] := Addresses[I].Name;
  end;
  Require(Kind + 'MailBox', Join(Mailboxes));
  Require(Kind + 'FullName', Join(Names));
end;

procedure TConnection.Require(const Name, Value: UnicodeString);
var
  Code: Integer;
begin
  if Pos(UnicodeString(#0), Value) > 0 then
    raise Failure(CodeInvalid, 'A setting cannot contain the character 0.');
  if VelMailSetProperty(PAnsiChar(UTF8Encode(Name)), PAnsiChar(Encode(Value))) <> 0 then
    Exit;
  Code := LastError;
  if Code <> 0 then
    raise Failure(Code, SentenceOf(Code));
  if Value <> '' then // an empty one that an older library lacks is as good as set
    raise Failure(CodeUnknown, 'The library cannot set the property ' + Name + '.');
end;

// Empty: the library does not know the property.
function TConnection.GetProperty(const Name: RawByteString): UnicodeString;
var
  Size: array [0 .. 11] of AnsiChar;
  Text: TBytes;
begin
  Result := '';
  if VelMailGetProperty(PAnsiChar(Name), @Size, 0) = 0 then
    Exit;
  SetLength(Text, StrToInt(string(RawByteString(PAnsiChar(@Size[0])))));
  if VelMailGetProperty(PAnsiChar(Name), Pointer(Text), Length(Text)) <> 0 then
    Result := Decode(RawByteString(PAnsiChar(Pointer(Text))));
end;

// Kept until the send has ended.
function TConnection.Block(const Content: TBytes): UnicodeString;
begin
  SetLength(FKept, Length(FKept) + 1);
  FKept[High(FKept)] := Content;
  Result := BlockAt(Pointer(Content), Length(Content));
end;

function TConnection.Encode(const Text: UnicodeString): RawByteString;
var
  I, Code: Integer;
begin
  if FCharset = 'UTF-8' then
    Exit(UTF8Encode(Text));
  SetLength(Result, Length(Text));
  for I := 1 to Length(Text) do
  begin
    Code := Ord(Text[I]);
    if (FCharset = 'WINDOWS-1252') and (Code > 127) and ((Code < 160) or (Code > 255)) then
    begin
      Code := High(Windows1252);
      while (Code >= Low(Windows1252)) and (Windows1252[Code] <> Ord(Text[I])) do
        Dec(Code);
      if Code < Low(Windows1252) then
        Code := 256;
    end;
    if Code > 255 then
      raise Failure(CodeInvalid, 'A text is not in the charset ' + FCharset + '.');
    Result[I] := AnsiChar(Code);
  end;
end;

// The server's words in the report may be in any charset; what cannot be read is replaced.
function TConnection.Decode(const Bytes: RawByteString): UnicodeString;
begin
  if FCharset = 'UTF-8' then
    Result := UTF8ToString(Bytes)
  else
    Result := Widen(Bytes);
end;

end.
