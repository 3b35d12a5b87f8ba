// Tests of the binding that need no service: BindingTest ABI-FILE. Prints a line for each test. The exit code is
// the number of tests that failed.
using System;
using System.Collections.Concurrent;
using System.Collections.Generic;
using System.Diagnostics;
using System.IO;
using System.Linq;
using System.Reflection;
using System.Runtime.CompilerServices;
using System.Runtime.InteropServices;
using System.Threading;
using System.Threading.Tasks;
using Orvik;

static class Tests
{
    /// <summary>Time limit of every wait. Only a broken test needs this long.</summary>
    internal static readonly TimeSpan Deadline = TimeSpan.FromSeconds(30);

    static string[] abi;

    static int Main(string[] arguments)
    {
        if (arguments[0] == "child")
            return Child(arguments[1], arguments[2]);
        abi = File.ReadAllLines(arguments[0]);
        int failed = 0;
        foreach (MethodInfo test in typeof(Tests).GetMethods(BindingFlags.Static | BindingFlags.Public))
        {
            try
            {
                test.Invoke(null, null);
                Console.WriteLine("ok " + test.Name);
            }
            catch (TargetInvocationException exception)
            {
                ++failed;
                Console.WriteLine("FAILED " + test.Name + ": " + exception.InnerException);
            }
        }
        return failed;
    }

    // ---- The interface of orvik.dll ----

    public static void StructuresHaveTheLayoutOfTheAbiFile()
    {
        int structures = 0;
        foreach (Type type in typeof(Native).GetNestedTypes(BindingFlags.NonPublic))
        {
            if (!type.IsValueType)
                continue;
            ++structures;
            var layout = new List<string> { type.Name + " " + Marshal.SizeOf(type) };
            foreach (FieldInfo field in type.GetFields(BindingFlags.Instance | BindingFlags.NonPublic))
                layout.Add("    " + field.Name + " " + Marshal.OffsetOf(type, field.Name) + " " + SizeOf(field));
            int first = Array.IndexOf(abi, layout[0]);
            ExpectEqual(first >= 0, true, layout[0] + " in the ABI file");
            ExpectEqual(Joined(abi.Skip(first).Take(1).Concat(
                            abi.Skip(first + 1).TakeWhile(line => line.StartsWith("    ")))),
                        Joined(layout), type.Name);
        }
        ExpectEqual(structures, abi.Count(line => line.StartsWith("    size 0 ")), "number of structures");
    }

    public static void FunctionsAreExportsOfTheAbiFile()
    {
        foreach (MethodInfo function in typeof(Native).GetMethods(BindingFlags.Static | BindingFlags.NonPublic))
        {
            if (!function.Attributes.HasFlag(MethodAttributes.PinvokeImpl))
                continue;
            ExpectEqual(abi.Contains(function.Name), true, function.Name);
            Marshal.Prelink(function); // throws if orvik.dll has no such function
        }
    }

    public static void ConstantsAreThoseOfTheAbiFile()
    {
        foreach (ErrorKind kind in Enum.GetValues(typeof(ErrorKind)))
            ExpectConstant("ERROR_" + UpperCase(kind.ToString()), (int)kind);
        ExpectConstant("ERROR_BUFFER_TOO_SMALL", Native.BufferTooSmall);
        ExpectConstant("EVENT_CONNECTED", Native.EventConnected);
        ExpectConstant("EVENT_DISCONNECTED", Native.EventDisconnected);
        ExpectConstant("EVENT_ATTACHED", Native.EventAttached);
        ExpectConstant("EVENT_DETACHED", Native.EventDetached);
        ExpectLine("ORVIK_TRANSFER_TIMEOUT " + Native.TransferTimeout + "u");
        ExpectLine("ORVIK_NO_TIMEOUT 0x" + Native.NoTimeout.ToString("X") + "u");
        ExpectLine("ORVIK_TRANSFER_IN_LIMIT " + Native.TransferInLimit + "u");
    }

    public static void OptionsHaveTheDefaultsOfTheDll()
    {
        var options = new ClientOptions();
        ExpectEqual(options.ConnectTimeout, TimeSpan.FromSeconds(5), "ConnectTimeout");
        ExpectEqual(options.GoneWait, TimeSpan.FromMilliseconds(100), "GoneWait");
        ExpectEqual(options.TransferOutLimit, 65536, "TransferOutLimit");
        ExpectEqual(options.CheckServer, true, "CheckServer");
        ExpectEqual(options.Pipe, null, "Pipe");
    }

    // ---- SCSI ----

    public static void CommandsAreThoseOfTheStandard()
    {
        ExpectEqual(Hex(Cdb.Inquiry()), "12-00-00-00-24-00", "INQUIRY");
        ExpectEqual(Hex(Cdb.TestUnitReady()), "00-00-00-00-00-00", "TEST UNIT READY");
        ExpectEqual(Hex(Cdb.ReadCapacity()), "25-00-00-00-00-00-00-00", "READ CAPACITY(10)");
        ExpectEqual(Cdb.RequestSense()[0], 0x03, "REQUEST SENSE");
        ExpectEqual(Hex(Cdb.Read6(0x012345, 128)), "08-01-23-45-80-00", "READ(6)");
        ExpectEqual(Hex(Cdb.Write6(0x012345, 255)), "0A-01-23-45-FF-00", "WRITE(6)");
        var error = Throws<OrvikException>(() => Cdb.Read6(0, 256));
        ExpectEqual(error.Kind, ErrorKind.InvalidArgument, "256 blocks");
    }

    public static void AnswersAreDecoded()
    {
        var inquiry = new byte[36];
        inquiry[0] = 5;
        inquiry[1] = 0x80;
        Text("Orvik   Virtual Camera  F01 ").CopyTo(inquiry, 8);
        Inquiry decoded = Inquiry.Decode(inquiry);
        ExpectEqual(decoded.DeviceType + decoded.Vendor + decoded.Product + decoded.Revision + decoded.Removable,
                    "5OrvikVirtual CameraF01True", "INQUIRY");
        Capacity capacity = Capacity.Decode(new byte[] { 0, 0, 7, 0xFF, 0, 0, 2, 0 });
        ExpectEqual(capacity.BlockCount + " x " + capacity.BlockLength, "2048 x 512", "READ CAPACITY(10)");
        Sense sense = Sense.Decode(NotReady);
        ExpectEqual(sense.Key + " " + sense.Code + " " + sense.Qualifier + " " + sense.Deferred + " " + sense.Text,
                    "2 58 0 False NOT READY: MEDIUM NOT PRESENT", "sense data");
    }

    public static void ShortAnswersAreRefused()
    {
        ExpectEqual(Throws<OrvikException>(() => Inquiry.Decode(new byte[35])).Kind, ErrorKind.BadAnswer, "INQUIRY");
        ExpectEqual(Throws<OrvikException>(() => Capacity.Decode(new byte[7])).Kind, ErrorKind.BadAnswer,
                    "READ CAPACITY(10)");
        ExpectEqual(Throws<OrvikException>(() => Sense.Decode(new byte[7])).Kind, ErrorKind.BadAnswer, "sense data");
        Throws<ArgumentNullException>(() => Sense.Decode(null));
    }

    // ---- Connecting and events ----

    public static void WithoutServiceTheClientReportsWhy()
    {
        using (var client = new Opened(@"\\.\pipe\orvik-dotnet-test-none-\u00E4"))
        {
            OrvikException error = client.NextError();
            ExpectEqual(error.SystemCode, 2, "system code: " + error.Kind + ", " + error.Message);
            ExpectEqual(client.Client.Cameras.Count, 0, "cameras");
            var missing = Throws<OrvikException>(
                () => client.Client.TransferNoData(new Camera(1), Cdb.TestUnitReady()));
            ExpectEqual(missing.Kind, ErrorKind.NoSuchCamera, missing.Message);
        }
    }

    public static void ConnectionEndsAndBegins()
    {
        Opened client;
        var service = new FakeService();
        using (client = new Opened(service.Pipe))
        {
            ExpectEqual(client.Next() + client.Next(), "connected+1", "events");
            Camera camera = client.Client.Cameras.Single();
            ExpectEqual(camera.Id, 1, "camera");
            service.Dispose();
            ExpectEqual(client.Next() + client.Next(), "-1disconnected", "events");
            ExpectEqual(client.NextError().Kind, ErrorKind.ServiceGone, "error");
            var error = Throws<OrvikException>(() => client.Client.TransferNoData(camera, Cdb.TestUnitReady()));
            ExpectEqual(error.Kind, ErrorKind.NoSuchCamera, error.Message);
        }
    }

    public static void HandlerMakesCallsAndDisposesTheClient()
    {
        using (var service = new FakeService())
        using (var client = new PersistentClient(Options(service.Pipe)))
        {
            var done = new TaskCompletionSource<byte[]>();
            int events = 0;
            client.Connected += (sender, e) => Interlocked.Increment(ref events);
            client.CameraAttached += (sender, e) => {
                Interlocked.Increment(ref events);
                byte[] data = client.TransferIn(e.Camera, Cdb.Inquiry());
                client.Dispose();
                done.SetResult(data);
            };
            client.CameraDetached += (sender, e) => Interlocked.Increment(ref events);
            client.Disconnected += (sender, e) => Interlocked.Increment(ref events);
            client.Open();
            service.NextRequest().Succeed(1, 2, 3);
            ExpectEqual(Hex(Await(done.Task)), "01-02-03", "data");
            ExpectSignalled(service.FirstClientHasGone, "the client has disconnected");
            ExpectEqual(Volatile.Read(ref events), 2, "events");
            Throws<ObjectDisposedException>(() => client.Cameras.ToString());
        }
    }

    public static void ClientIsOpenedOnce()
    {
        using (var client = new Opened(@"\\.\pipe\orvik-dotnet-test-none"))
        {
            Throws<InvalidOperationException>(() => client.Client.Open());
            client.Client.Dispose();
            Throws<ObjectDisposedException>(() => client.Client.Open());
        }
        using (var closed = new PersistentClient())
            Throws<InvalidOperationException>(() => closed.Cameras.ToString());
    }

    // ---- Transfers ----

    public static void SynchronousTransfersCarryCommandAndData()
    {
        WithCamera((client, camera, service) => {
            Task<byte[]> read = Task.Run(() => client.TransferIn(camera, Cdb.Read6(5, 1)));
            Request request = service.NextRequest();
            ExpectEqual(request.Type + " " + Hex(request.Body), "3 08-00-00-05-01-00" + Zeros(10), "read");
            request.Succeed(7, 8, 9);
            ExpectEqual(Hex(Await(read)), "07-08-09", "data");

            Task write = Task.Run(() => client.TransferOut(camera, Cdb.Write6(5, 1), new byte[] { 1, 2 }));
            request = service.NextRequest();
            ExpectEqual(request.Type + " " + Hex(request.Body), "2 0A-00-00-05-01-00" + Zeros(10) + "-01-02",
                        "write");
            request.Succeed();
            Await(write);

            Task noData = Task.Run(() => client.TransferNoData(camera, Cdb.TestUnitReady()));
            request = service.NextRequest();
            ExpectEqual(request.Type + " " + Hex(request.Body), "4 00" + Zeros(15), "no data");
            request.Succeed();
            Await(noData);
        });
    }

    public static void RefusalIsExplainedBySense()
    {
        WithCamera((client, camera, service) => {
            Task refused = Task.Run(() => client.TransferNoData(camera, Cdb.TestUnitReady()));
            service.NextRequest().Refuse();
            ExpectEqual(Throws<OrvikException>(() => Await(refused)).Kind, ErrorKind.Refused, "error");
            Task<Sense> asked = Task.Run(() => client.RequestSense(camera));
            service.NextRequest().Succeed(NotReady);
            ExpectEqual(Await(asked).Text, "NOT READY: MEDIUM NOT PRESENT", "sense");
        });
    }

    public static void SynchronousTransferTimesOut()
    {
        WithCamera((client, camera, service) => {
            var error = Throws<OrvikException>(
                () => client.TransferIn(camera, Cdb.Inquiry(), TimeSpan.FromMilliseconds(1)));
            ExpectEqual(error.Kind, ErrorKind.TimedOut, error.Message);
            Throws<ArgumentOutOfRangeException>(
                () => client.TransferIn(camera, Cdb.Inquiry(), TimeSpan.FromMilliseconds(-2)));
            Throws<ArgumentNullException>(() => client.TransferIn(camera, null));
        });
    }

    public static void AsynchronousTransfersEndInAnyOrder()
    {
        WithCamera((client, camera, service) => {
            Task<byte[]> first = client.TransferInAsync(camera, Cdb.Read6(1, 1));
            Request read = service.NextRequest();
            Task second = client.TransferOutAsync(camera, Cdb.Write6(2, 1), new byte[] { 5 });
            Request write = service.NextRequest();
            Task third = client.TransferNoDataAsync(camera, Cdb.TestUnitReady());
            service.NextRequest().Refuse();
            ExpectEqual(Throws<OrvikException>(() => Await(third)).Kind, ErrorKind.Refused, "third");
            ExpectEqual(write.Type + " " + write.Body[16], "2 5", "write");
            write.Succeed();
            Await(second);
            ExpectEqual(first.IsCompleted, false, "first");
            read.Succeed(1);
            ExpectEqual(Hex(Await(first)), "01", "data");
        });
    }

    public static void AsynchronousErrorsAreInTheTask()
    {
        WithCamera((client, camera, service) => {
            Throws<ArgumentNullException>(() => Await(client.TransferInAsync(camera, null)));
            Task<byte[]> missing = client.TransferInAsync(new Camera(99), Cdb.Inquiry());
            ExpectEqual(Throws<OrvikException>(() => Await(missing)).Kind, ErrorKind.NoSuchCamera, "camera 99");
            Task<byte[]> late =
                client.TransferInAsync(camera, Cdb.Inquiry(), TimeSpan.FromMilliseconds(1));
            ExpectEqual(Throws<OrvikException>(() => Await(late)).Kind, ErrorKind.TimedOut, "time-out");
        });
    }

    public static void AsynchronousErrorHasTheDescriptionAndTheSystemCode()
    {
        WithCamera((client, camera, service) => {
            Task refused = client.TransferNoDataAsync(camera, Cdb.TestUnitReady());
            service.NextRequest().Refuse();
            var error = Throws<OrvikException>(() => Await(refused));
            ExpectEqual(error.Message, "the command failed on camera 1", "refused");
            ExpectEqual(error.SystemCode, 0, "refused");
            Task closed = client.TransferNoDataAsync(camera, Cdb.TestUnitReady());
            service.NextRequest().Pipe.Dispose();
            error = Throws<OrvikException>(() => Await(closed));
            ExpectEqual(error.Kind + " " + error.SystemCode, "ServiceGone 109", error.Message);
            ExpectEqual(error.Message.Contains("(error 109)"), true, error.Message);
        });
    }

    public static void TokenCancelsATransfer()
    {
        WithCamera((client, camera, service) => {
            using (var cancellation = new CancellationTokenSource())
            {
                Task<byte[]> task = client.TransferInAsync(camera, Cdb.Inquiry(), Timeout.InfiniteTimeSpan,
                                                           cancellation.Token);
                service.NextRequest();
                ExpectEqual(task.IsCompleted, false, "completed");
                cancellation.Cancel();
                var error = Throws<OperationCanceledException>(() => Await(task));
                ExpectEqual(error.CancellationToken, cancellation.Token, "token");
                ExpectEqual(task.Status, TaskStatus.Canceled, "status");
                // Nothing is sent for a token that is cancelled already: the next request is the other one.
                task = client.TransferInAsync(camera, Cdb.Inquiry(), null, cancellation.Token);
                ExpectEqual(task.Status, TaskStatus.Canceled, "status");
                Task other = client.TransferNoDataAsync(camera, Cdb.TestUnitReady());
                Request request = service.NextRequest();
                ExpectEqual(request.Type, 4u, "request");
                request.Succeed();
                Await(other);
            }
        });
    }

    public static void DisposeEndsOutstandingTransfers()
    {
        WithCamera((client, camera, service) => {
            using (var cancellation = new CancellationTokenSource())
            {
                Task task = client.TransferInAsync(camera, Cdb.Inquiry(), null, cancellation.Token);
                service.NextRequest();
                client.Dispose();
                ExpectEqual(Throws<OrvikException>(() => Await(task)).Kind, ErrorKind.Cancelled, "error");
                cancellation.Cancel(); // has no request any more
                Throws<ObjectDisposedException>(() => client.TransferIn(camera, Cdb.Inquiry()));
            }
        });
    }

    public static void DisposeDuringASynchronousTransferLeavesTheTransferItsTime()
    {
        WithCamera((client, camera, service) => {
            int events = 0;
            client.CameraAttached += (sender, e) => Interlocked.Increment(ref events);
            Task<byte[]> other = client.TransferInAsync(camera, Cdb.Inquiry());
            Request otherRequest = service.NextRequest();
            Task<byte[]> read = Task.Run(() => client.TransferIn(camera, Cdb.Inquiry()));
            Request request = service.NextRequest();
            client.Dispose();
            FakeService.Announce(request.Pipe, 2);
            otherRequest.Succeed(2); // its completion follows the event, which the client must not raise
            ExpectEqual(Hex(Await(other)), "02", "data");
            ExpectEqual(Volatile.Read(ref events), 0, "events after Dispose()");
            request.Succeed(1);
            ExpectEqual(Hex(Await(read)), "01", "data");
            ExpectSignalled(service.FirstClientHasGone, "the client has disconnected");
        });
    }

    public static void GarbageCollectorLeavesAnOpenClient()
    {
        using (var service = new FakeService())
        {
            var attached = new TaskCompletionSource<Task<byte[]>>();
            OpenAndForget(service.Pipe, attached);
            Collect();
            Task<byte[]> read = Await(attached.Task);
            Request request = service.NextRequest();
            Collect();
            request.Succeed(4);
            ExpectEqual(Hex(Await(read)), "04", "data");
            forgotten.Dispose();
        }
    }

    // ---- The end of a program ----

    public static void ExceptionOfAHandlerEndsTheProgramAfterDisconnecting()
    {
        using (var service = new FakeService())
        using (Process child = StartChild("throw", service))
        {
            string errors = child.StandardError.ReadToEnd();
            ExpectSignalled(service.FirstClientHasGone, "the client has disconnected");
            ExpectEqual(service.Clients, 2, "connections: one more confirms a clean disconnect");
            child.WaitForExit();
            ExpectEqual(child.ExitCode != 0, true, "exit code");
            ExpectEqual(errors.Contains("thrown by a handler") && errors.Contains("ThrowInHandler"), true, errors);
        }
    }

    public static void ProgramThatForgetsToDisposeDisconnectsCleanly()
    {
        using (var service = new FakeService())
        using (Process child = StartChild("forget", service))
        {
            child.WaitForExit();
            ExpectEqual(child.ExitCode, 7, "exit code");
            ExpectSignalled(service.FirstClientHasGone, "the client has disconnected");
            ExpectEqual(service.Clients, 2, "connections: one more confirms a clean disconnect");
        }
    }

    static int Child(string what, string pipe)
    {
        var client = new PersistentClient(Options(pipe));
        var attached = new ManualResetEventSlim();
        client.CameraAttached += (sender, e) => {
            if (what == "throw")
                ThrowInHandler();
            attached.Set();
        };
        client.Open();
        ExpectSignalled(attached, "a camera is attached");
        return 7;
    }

    static void ThrowInHandler()
    {
        throw new Exception("thrown by a handler");
    }

    static Process StartChild(string what, FakeService service)
    {
        return Process.Start(new ProcessStartInfo {
            FileName = Process.GetCurrentProcess().MainModule.FileName,
            Arguments = "\"" + typeof(Tests).Assembly.Location + "\" child " + what + " " + service.Pipe,
            UseShellExecute = false,
            RedirectStandardError = what == "throw",
        });
    }

    // ---- What the tests share ----

    /// <summary>An open client of a pipe, and its events: "connected", "+1", "-1", "disconnected".</summary>
    sealed class Opened : IDisposable
    {
        internal readonly PersistentClient Client;
        private readonly BlockingCollection<string> events = new BlockingCollection<string>();
        private readonly BlockingCollection<OrvikException> errors = new BlockingCollection<OrvikException>();

        internal Opened(string pipe)
        {
            Client = new PersistentClient(Options(pipe));
            Client.Connected += (sender, e) => events.Add("connected");
            Client.CameraAttached += (sender, e) => events.Add("+" + e.Camera);
            Client.CameraDetached += (sender, e) => events.Add("-" + e.Camera);
            Client.Disconnected += (sender, e) => {
                errors.Add(e.Error);
                events.Add("disconnected");
            };
            Client.Open();
        }

        internal string Next()
        {
            return Take(events);
        }

        internal OrvikException NextError()
        {
            return Take(errors);
        }

        public void Dispose()
        {
            Client.Dispose();
        }

        private static T Take<T>(BlockingCollection<T> collection)
        {
            T item;
            if (!collection.TryTake(out item, Deadline))
                throw new Exception("no event came");
            return item;
        }
    }

    static void WithCamera(Action<PersistentClient, Camera, FakeService> test)
    {
        using (var service = new FakeService())
        using (var client = new Opened(service.Pipe))
        {
            ExpectEqual(client.Next() + client.Next(), "connected+1", "events");
            test(client.Client, client.Client.Cameras.Single(), service);
        }
    }

    static ClientOptions Options(string pipe)
    {
        return new ClientOptions { Pipe = pipe, CheckServer = false };
    }

    static PersistentClient forgotten;

    [MethodImpl(MethodImplOptions.NoInlining)]
    static void OpenAndForget(string pipe, TaskCompletionSource<Task<byte[]>> attached)
    {
        var client = new PersistentClient(Options(pipe));
        client.CameraAttached += (sender, e) => {
            forgotten = (PersistentClient)sender;
            attached.SetResult(forgotten.TransferInAsync(e.Camera, Cdb.Inquiry()));
        };
        client.Open();
    }

    static void Collect()
    {
        GC.Collect();
        GC.WaitForPendingFinalizers();
        GC.Collect();
    }

    static readonly byte[] NotReady = { 0x70, 0, 2, 0, 0, 0, 0, 10, 0, 0, 0, 0, 0x3A, 0, 0, 0, 0, 0 };

    static void Await(Task task)
    {
        if (Task.WhenAny(task, Task.Delay(Deadline)).GetAwaiter().GetResult() != task)
            throw new Exception("the task does not end");
        task.GetAwaiter().GetResult();
    }

    static T Await<T>(Task<T> task)
    {
        Await((Task)task);
        return task.Result;
    }

    static T Throws<T>(Action action) where T : Exception
    {
        try
        {
            action();
        }
        catch (T exception)
        {
            return exception;
        }
        throw new Exception("no " + typeof(T).Name + " was thrown");
    }

    static void ExpectEqual<T>(T actual, T expected, string what)
    {
        if (!EqualityComparer<T>.Default.Equals(actual, expected))
            throw new Exception(what + ": is " + actual + ", expected " + expected);
    }

    static void ExpectSignalled(ManualResetEventSlim signal, string what)
    {
        ExpectEqual(signal.Wait(Deadline), true, what);
    }

    static void ExpectLine(string line)
    {
        ExpectEqual(abi.Contains(line), true, line);
    }

    static void ExpectConstant(string name, int value)
    {
        string line = "ORVIK_" + name + " = " + value;
        ExpectEqual(abi.Any(other => other.TrimEnd(' ', '}', ';', ',') == line), true, line);
    }

    static string UpperCase(string name)
    {
        return string.Concat(name.Select((c, i) => i != 0 && char.IsUpper(c) ? "_" + c : c.ToString()))
            .ToUpperInvariant();
    }

    static int SizeOf(FieldInfo field)
    {
        var array = field.GetCustomAttribute<MarshalAsAttribute>();
        return array != null ? array.SizeConst : Marshal.SizeOf(field.FieldType);
    }

    static string Joined(IEnumerable<string> lines)
    {
        return string.Join("\n", lines);
    }

    static string Hex(byte[] bytes)
    {
        return BitConverter.ToString(bytes);
    }

    static string Zeros(int count)
    {
        return string.Concat(Enumerable.Repeat("-00", count));
    }

    static byte[] Text(string text)
    {
        return System.Text.Encoding.ASCII.GetBytes(text);
    }
}
