using System;
using System.Collections.Generic;
using System.Runtime.ExceptionServices;
using System.Runtime.InteropServices;
using System.Text;
using System.Threading;
using System.Threading.Tasks;

namespace Orvik
{
    /// <summary>
    /// A connection to OrvikService that an application opens at its start and keeps. It connects when the
    /// service can be reached, connects again when a connection has ended, and hears of every camera.
    /// <code>
    /// using (var client = new PersistentClient())
    /// {
    ///     client.CameraAttached += (sender, e) => Show(e.Camera);
    ///     client.Open();
    ///     ...
    /// }
    /// </code>
    /// </summary>
    /// <remarks>
    /// <para>Threads: any thread may make any call. One thread of orvik.dll, the handler thread, calls the event
    /// handlers, one after the other. They may make every call, also synchronous ones, and may dispose the
    /// client. Do not wait in a handler for a task of this client: the handler thread ends the tasks. What
    /// follows an await runs on another thread.</para>
    /// <para>An exception that leaves an event handler ends the program, like every unhandled exception: the
    /// client is disposed, and the exception is thrown again on a thread of the thread pool.</para>
    /// <para>Lifetime: an open client stays in memory and connected until <see cref="Dispose"/>, also without a
    /// reference to it. A program that ends with a client open can end the service's run for every program.
    /// When the runtime shuts down in order (return from Main, Environment.Exit), open clients are
    /// disposed. When the program is killed or crashes, they are not.</para>
    /// <para>Errors: calls throw <see cref="OrvikException"/>, ArgumentNullException,
    /// ArgumentOutOfRangeException for a time-out, InvalidOperationException before <see cref="Open"/> and
    /// ObjectDisposedException after <see cref="Dispose"/>.</para>
    /// </remarks>
    public sealed class PersistentClient : IDisposable
    {
        // Native code calls these as long as the DLL is loaded: the garbage collector must not free them.
        private static readonly Native.orvik_event_callback OnEventDelegate = OnEvent;
        private static readonly Native.orvik_completion OnCompletionDelegate = OnCompletion;

        private readonly ClientOptions options;
        private readonly object opening = new object();
        private ClientHandle handle; // null before Open()
        private volatile bool disposed;

        /// <summary>Connects to nothing yet: subscribe to the events first, then call <see cref="Open"/>.</summary>
        public PersistentClient(ClientOptions options = null)
        {
            this.options = options ?? new ClientOptions();
        }

        /// <summary>The version of orvik.dll, such as "4.0.4".</summary>
        public static string NativeVersion
        {
            get { return Native.Text(Native.orvik_version()); }
        }

        /// <summary>The client has connected to the service.</summary>
        public event EventHandler Connected;

        /// <summary>
        /// The connection has ended; or, while disconnected, connecting fails for another kind of reason.
        /// </summary>
        public event EventHandler<DisconnectedEventArgs> Disconnected;

        /// <summary>A camera is there. Raised for each camera present, and for each one that arrives.</summary>
        public event EventHandler<CameraEventArgs> CameraAttached;

        /// <summary>
        /// A camera has gone. When the connection ends, all cameras are detached, before
        /// <see cref="Disconnected"/>.
        /// </summary>
        public event EventHandler<CameraEventArgs> CameraDetached;

        /// <summary>Begins to connect, and returns at once. Once for each object.</summary>
        public void Open()
        {
            lock (opening)
            {
                if (disposed)
                    throw new ObjectDisposedException(nameof(PersistentClient));
                if (handle != null)
                    throw new InvalidOperationException("the client is open");
                GCHandle self = GCHandle.Alloc(this);
                try
                {
                    handle = OpenNative(GCHandle.ToIntPtr(self));
                }
                catch
                {
                    self.Free();
                    throw;
                }
                handle.User = self;
                AppDomain.CurrentDomain.ProcessExit += OnProcessExit;
            }
        }

        private ClientHandle OpenNative(IntPtr user)
        {
            var native = new Native.orvik_options {
                size = (uint)Marshal.SizeOf<Native.orvik_options>(),
                timeout_ms = Native.Milliseconds(options.ConnectTimeout),
                gone_wait_ms = Native.Milliseconds(options.GoneWait),
                transfer_out_limit = unchecked((uint)options.TransferOutLimit),
                check_server = options.CheckServer ? 1u : 0u,
                on_event = Marshal.GetFunctionPointerForDelegate(OnEventDelegate),
                user = user,
            };
            byte[] pipe = options.Pipe != null ? Encoding.UTF8.GetBytes(options.Pipe + '\0') : null;
            GCHandle pinned = GCHandle.Alloc(pipe, GCHandleType.Pinned);
            try
            {
                native.pipe = pinned.AddrOfPinnedObject();
                ClientHandle client;
                OrvikException.ThrowIfFailed(Native.orvik_client_open(ref native, out client));
                return client;
            }
            finally
            {
                pinned.Free();
            }
        }

        /// <summary>
        /// Disconnects at a moment that is safe for the service. That usually takes as long as one round trip,
        /// and at most two seconds if the service is busy with a command. Ends each outstanding transfer with
        /// <see cref="ErrorKind.Cancelled"/>. No event handler begins after it.
        /// </summary>
        /// <remarks>
        /// Waits for the event handler in progress, unless it is called by that. So a thread must not hold, while
        /// it disposes a client, a lock that a handler waits for. If other threads have a synchronous call in
        /// progress, this method returns at once, and the last of those calls disconnects when it ends.
        /// </remarks>
        public void Dispose()
        {
            ClientHandle closing;
            lock (opening)
            {
                if (disposed)
                    return;
                disposed = true;
                closing = handle;
            }
            if (closing == null)
                return;
            AppDomain.CurrentDomain.ProcessExit -= OnProcessExit;
            closing.Dispose();
        }

        private void OnProcessExit(object sender, EventArgs e)
        {
            Dispose();
        }

        /// <summary>The cameras present, in the order in which they were attached. Never waits.</summary>
        public IReadOnlyList<Camera> Cameras
        {
            get
            {
                var values = new ulong[4];
                while (true)
                {
                    uint count;
                    int status =
                        Native.orvik_client_cameras(Handle, values, (uint)values.Length, out count);
                    if (status == Native.BufferTooSmall)
                    {
                        values = new ulong[count];
                        continue;
                    }
                    OrvikException.ThrowIfFailed(status);
                    var cameras = new Camera[count];
                    for (uint i = 0; i < count; ++i)
                        cameras[i] = new Camera(values[i]);
                    return cameras;
                }
            }
        }

        /// <summary>
        /// Sends a command that returns data, and waits for the data: often fewer bytes than the command asked
        /// for, and at most 65536.
        /// </summary>
        /// <param name="camera">The camera.</param>
        /// <param name="cdb">The command descriptor block, 1 to 8 bytes.</param>
        /// <param name="timeout">
        /// Null: 30 s. May be Timeout.InfiniteTimeSpan. After <see cref="ErrorKind.TimedOut"/> the camera still
        /// executes the command.
        /// </param>
        public byte[] TransferIn(Camera camera, byte[] cdb, TimeSpan? timeout = null)
        {
            RequireCdb(cdb);
            var data = new byte[Native.TransferInLimit];
            uint length;
            OrvikException.ThrowIfFailed(Native.orvik_transfer_in(Handle, camera.Value, cdb,
                                                                  (uint)cdb.Length, data,
                                                                  (uint)data.Length, out length,
                                                                  Milliseconds(timeout)));
            Array.Resize(ref data, (int)length);
            return data;
        }

        /// <summary>
        /// Sends a command with data for the camera, and waits until the camera has executed it. See
        /// <see cref="TransferIn"/>.
        /// </summary>
        public void TransferOut(Camera camera, byte[] cdb, byte[] data, TimeSpan? timeout = null)
        {
            RequireCdb(cdb);
            RequireData(data);
            OrvikException.ThrowIfFailed(Native.orvik_transfer_out(Handle, camera.Value, cdb,
                                                                   (uint)cdb.Length, data,
                                                                   (uint)data.Length,
                                                                   Milliseconds(timeout)));
        }

        /// <summary>
        /// Sends a command without data, and waits until the camera has executed it. See
        /// <see cref="TransferIn"/>.
        /// </summary>
        public void TransferNoData(Camera camera, byte[] cdb, TimeSpan? timeout = null)
        {
            RequireCdb(cdb);
            OrvikException.ThrowIfFailed(Native.orvik_transfer_no_data(Handle, camera.Value, cdb,
                                                                       (uint)cdb.Length,
                                                                       Milliseconds(timeout)));
        }

        /// <summary>
        /// Asks the camera for the sense data: call it right after <see cref="ErrorKind.Refused"/>. Windows
        /// decides whether there is any: its driver may have asked for the sense data itself, and then the
        /// camera says NO SENSE.
        /// </summary>
        public Sense RequestSense(Camera camera, TimeSpan? timeout = null)
        {
            Native.orvik_sense sense = Sense.Empty();
            OrvikException.ThrowIfFailed(
                Native.orvik_get_sense(Handle, camera.Value, ref sense, Milliseconds(timeout)));
            return new Sense(sense);
        }

        /// <summary>
        /// Starts a command that returns data. Any number of transfers can be outstanding, and they end in any
        /// order. Returns when the command has been sent, which takes long only if the service does not read.
        /// </summary>
        /// <param name="camera">The camera.</param>
        /// <param name="cdb">The command descriptor block, 1 to 8 bytes; it is copied.</param>
        /// <param name="timeout">Null: 30 s. May be Timeout.InfiniteTimeSpan.</param>
        /// <param name="cancellationToken">
        /// Ends the task; the camera still executes the command. If it is cancelled before the call, nothing is sent.
        /// </param>
        /// <returns>The data. All errors, also those of the arguments, are in the task.</returns>
        public Task<byte[]> TransferInAsync(Camera camera, byte[] cdb, TimeSpan? timeout = null,
                                            CancellationToken cancellationToken = default(CancellationToken))
        {
            return RunAsync((ClientHandle client, IntPtr user, out RequestHandle request) => {
                RequireCdb(cdb);
                return Native.orvik_start_in(client, camera.Value, cdb, (uint)cdb.Length,
                                             OnCompletionDelegate, user, Milliseconds(timeout), out request);
            }, cancellationToken);
        }

        /// <summary>
        /// Starts a command with data for the camera; the data is copied. See <see cref="TransferInAsync"/>.
        /// </summary>
        public Task TransferOutAsync(Camera camera, byte[] cdb, byte[] data, TimeSpan? timeout = null,
                                     CancellationToken cancellationToken = default(CancellationToken))
        {
            return RunAsync((ClientHandle client, IntPtr user, out RequestHandle request) => {
                RequireCdb(cdb);
                RequireData(data);
                return Native.orvik_start_out(client, camera.Value, cdb, (uint)cdb.Length, data,
                                              (uint)data.Length, OnCompletionDelegate, user,
                                              Milliseconds(timeout), out request);
            }, cancellationToken);
        }

        /// <summary>Starts a command without data. See <see cref="TransferInAsync"/>.</summary>
        public Task TransferNoDataAsync(Camera camera, byte[] cdb, TimeSpan? timeout = null,
                                        CancellationToken cancellationToken = default(CancellationToken))
        {
            return RunAsync((ClientHandle client, IntPtr user, out RequestHandle request) => {
                RequireCdb(cdb);
                return Native.orvik_start_no_data(client, camera.Value, cdb, (uint)cdb.Length,
                                                  OnCompletionDelegate, user, Milliseconds(timeout),
                                                  out request);
            }, cancellationToken);
        }

        private delegate int Start(ClientHandle client, IntPtr user, out RequestHandle request);

        private async Task<byte[]> RunAsync(Start start, CancellationToken cancellationToken)
        {
            cancellationToken.ThrowIfCancellationRequested();
            ClientHandle client = Handle;
            // The continuation must not run on the handler thread, where it could wait for another task.
            var completion =
                new TaskCompletionSource<byte[]>(TaskCreationOptions.RunContinuationsAsynchronously);
            GCHandle user = GCHandle.Alloc(completion); // OnCompletion() frees it
            RequestHandle request;
            try
            {
                OrvikException.ThrowIfFailed(start(client, GCHandle.ToIntPtr(user), out request));
            }
            catch
            {
                user.Free();
                throw;
            }
            using (request)
            using (cancellationToken.Register(() => Cancel(client, request)))
            {
                try
                {
                    return await completion.Task.ConfigureAwait(false);
                }
                catch (OrvikException error) when (error.Kind == ErrorKind.Cancelled &&
                                                   cancellationToken.IsCancellationRequested)
                {
                    throw new OperationCanceledException(cancellationToken);
                }
            }
        }

        private static void Cancel(ClientHandle client, RequestHandle request)
        {
            bool added = false;
            try
            {
                client.DangerousAddRef(ref added); // the client must not be closed meanwhile
                Native.orvik_request_cancel(request);
            }
            catch (ObjectDisposedException)
            {
                // The client has been closed, and that has ended the request.
            }
            finally
            {
                if (added)
                    client.DangerousRelease();
            }
        }

        // Exceptions must not leave the next two, because native code calls them.

        private static void OnCompletion(ref Native.orvik_result result, IntPtr user)
        {
            GCHandle handle = GCHandle.FromIntPtr(user);
            var completion = (TaskCompletionSource<byte[]>)handle.Target;
            handle.Free();
            try
            {
                if (result.status != Native.Ok)
                    throw new OrvikException(result.status, result.system_code, Native.Text(result.text));
                var bytes = new byte[result.length];
                if (bytes.Length != 0)
                    Marshal.Copy(result.data, bytes, 0, bytes.Length);
                completion.SetResult(bytes);
            }
            catch (Exception exception)
            {
                completion.SetException(exception);
            }
        }

        private static void OnEvent(IntPtr native, ref Native.orvik_event what, IntPtr user)
        {
            var client = (PersistentClient)GCHandle.FromIntPtr(user).Target;
            try
            {
                client.Raise(what);
            }
            catch (Exception exception)
            {
                client.Dispose();
                ThreadPool.QueueUserWorkItem(captured => ((ExceptionDispatchInfo)captured).Throw(),
                                             ExceptionDispatchInfo.Capture(exception));
            }
        }

        private void Raise(Native.orvik_event what)
        {
            lock (opening) {} // the first event may come before Open() has stored the handle
            if (disposed)
                return;
            switch (what.kind)
            {
                case Native.EventConnected:
                    Connected?.Invoke(this, EventArgs.Empty);
                    break;
                case Native.EventDisconnected:
                    Disconnected?.Invoke(this, new DisconnectedEventArgs(new OrvikException(
                                                   what.status, what.system_code, Native.Text(what.text))));
                    break;
                case Native.EventAttached:
                    CameraAttached?.Invoke(this, new CameraEventArgs(new Camera(what.camera)));
                    break;
                case Native.EventDetached:
                    CameraDetached?.Invoke(this, new CameraEventArgs(new Camera(what.camera)));
                    break;
            }
        }

        private ClientHandle Handle
        {
            get
            {
                if (disposed)
                    throw new ObjectDisposedException(nameof(PersistentClient));
                ClientHandle current = handle;
                if (current == null)
                    throw new InvalidOperationException("the client is not open");
                return current;
            }
        }

        private static void RequireCdb(byte[] cdb)
        {
            if (cdb == null)
                throw new ArgumentNullException(nameof(cdb));
        }

        private static void RequireData(byte[] data)
        {
            if (data == null)
                throw new ArgumentNullException(nameof(data));
        }

        private static uint Milliseconds(TimeSpan? timeout)
        {
            return timeout.HasValue ? Native.Milliseconds(timeout.Value) : Native.TransferTimeout;
        }
    }
}
