using System;

namespace Orvik
{
    /// <summary>Why a call failed. The numbers are those of <c>orvik_status</c>.</summary>
    public enum ErrorKind
    {
        /// <summary>The service OrvikService is not installed.</summary>
        NotInstalled = 1,
        /// <summary>The service is not running, or is stopping.</summary>
        Stopped = 2,
        /// <summary>The service was still starting at the deadline.</summary>
        Starting = 3,
        /// <summary>The service runs, but accepted no connection in time.</summary>
        Busy = 4,
        /// <summary>This user may not open the camera pipe, or query the service's state.</summary>
        AccessDenied = 5,
        /// <summary>A process that is not the service serves the camera pipe.</summary>
        WrongServer = 6,
        /// <summary>The service has ended, or an earlier error has closed the connection.</summary>
        ServiceGone = 7,
        /// <summary>The deadline passed.</summary>
        TimedOut = 8,
        /// <summary>The client was disposed during the request.</summary>
        Cancelled = 9,
        /// <summary>The camera is not attached, or is of an earlier connection.</summary>
        NoSuchCamera = 10,
        /// <summary>The camera or its driver refused the command.</summary>
        Refused = 11,
        /// <summary>The service or the camera sent invalid data.</summary>
        BadAnswer = 12,
        /// <summary>An argument is outside its range; nothing was sent.</summary>
        InvalidArgument = 13,
        /// <summary>Another system call failed.</summary>
        System = 14,
        /// <summary>The camera was unplugged, or given up by the service, during the command.</summary>
        CameraGone = 15,
        /// <summary>Out of memory.</summary>
        OutOfMemory = 16,
    }

    /// <summary>A failure of a call or of a connection.</summary>
    public sealed class OrvikException : Exception
    {
        /// <summary>Why it failed. Later versions of orvik.dll may have further kinds.</summary>
        public ErrorKind Kind { get; }

        /// <summary>The Windows error code that caused it; 0 if there is none.</summary>
        public int SystemCode { get; }

        internal OrvikException(int status, uint systemCode, string text)
            : base(text.Length != 0 ? text : Native.Text(Native.orvik_status_text(status)))
        {
            Kind = (ErrorKind)status;
            SystemCode = unchecked((int)systemCode);
        }

        /// <summary>About the last call of this thread, which returned this status.</summary>
        internal static OrvikException OfLastCall(int status)
        {
            return new OrvikException(status, Native.orvik_last_error_system_code(),
                                      Native.Text(Native.orvik_last_error_text()));
        }

        internal static void ThrowIfFailed(int status)
        {
            if (status != Native.Ok)
                throw OfLastCall(status);
        }
    }
}
